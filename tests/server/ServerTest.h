// What the tests of values and messages share.

#pragma once

#include <utility>
#include <vector>

#include "server/KTCommand.h"
#include "support/AmfText.h"

namespace orv::test {

inline KTData container(u8 type, const std::vector<std::pair<const char*, KTData>>& entries = {}) {
  KTData value;
  value.setArray(new KTDataArray(static_cast<u32>(entries.size()) + 1), type);
  for (const auto& [key, entry] : entries) value.asArray()->append(key, entry);
  return value;
}

// The bytes must outlive what reads them.
inline KTCSerializer readerOf(const Bytes& bytes, bool throwing = false) {
  return {bytes.data(), static_cast<u32>(bytes.size()), throwing};
}

inline KTCommand commandOf(u8 type, const Bytes& payload, bool throwing = false) {
  return {type, payload.data(), static_cast<u32>(payload.size()), throwing};
}

inline Bytes bytesIn(const KTCSerializer& writer) {
  return {writer.bytes(), writer.bytes() + writer.length()};
}

inline KTMessagePtr messageOf(u8 typeByte, const Bytes& payload) {
  KTMessagePtr message;
  message->header.typeByte = typeByte;
  message->append(payload.data(), static_cast<u32>(payload.size()));
  return message;
}

inline Bytes bytesIn(const orv::Message& message) {
  return {message.payload(), message.payload() + message.payloadSize()};
}

}  // namespace orv::test
