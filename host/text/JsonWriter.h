// JSON as it is made, for documents that may be as long as a file is large: nothing is kept but the way down
// to the current value. Laid out as nlohmann's dump(2) does it.

#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Types.h"

namespace orv::host {

class JsonWriter {
 public:
  using Sink = std::function<void(const std::string& text)>;
  // The sink gets the text in pieces. It may throw; the document is then unfinished.
  explicit JsonWriter(Sink sink) : sink_(std::move(sink)) {}

  void beginObject() { begin('{', '}'); }
  void beginArray() { begin('[', ']'); }
  // Ends what was begun last.
  void end();
  // The key of the next value, which belongs to an object.
  void key(std::string_view key);

  void text(std::string_view text);  // UTF-8; a byte that isn't becomes U+FFFD.
  void hex(const u8* data, u32 size);
  // Numbers, booleans, null, and small documents.
  void value(const nlohmann::ordered_json& value);

  void member(std::string_view name, const nlohmann::ordered_json& content) { key(name), value(content); }
  void textMember(std::string_view name, std::string_view content) { key(name), text(content); }
  void hexMember(std::string_view name, const u8* data, u32 size) { key(name), hex(data, size); }
  // Hands out what is left, behind a line feed. The document must be whole.
  void finish();

 private:
  struct Level {
    char close;
    bool empty;
  };

  void begin(char open, char close);
  void startValue();
  void startLine(std::size_t level);
  void put(std::string_view text);

  const Sink sink_;
  std::vector<Level> levels_;
  bool keyed_ = false;  // A key stands in front of the next value.
  std::string pending_;
};

}  // namespace orv::host
