// A tag's payload as JSON, as the commands print it.

#pragma once

#include "host/flv/AmfJson.h"

namespace orv::host::test {

inline nlohmann::json payloadJson(const Tag& tag) {
  std::string text;
  JsonWriter out([&text](const std::string& piece) { text += piece; });
  out.beginObject();
  writePayload(tag, out);
  out.end();
  out.finish();
  return nlohmann::json::parse(text);
}

}  // namespace orv::host::test
