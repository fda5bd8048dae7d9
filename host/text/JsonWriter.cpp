#include "host/text/JsonWriter.h"

#include <algorithm>

#include "host/text/Printable.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kPiece = 1 << 16;
constexpr std::size_t kIndent = 2;

// The bytes of a piece of a long text: no more than fit, and none of a sequence that goes on behind them.
std::size_t pieceOf(std::string_view text) {
  std::size_t size = std::min(text.size(), kPiece);
  for (int back = 0; back < 3 && size < text.size() && (text[size] & 0xC0) == 0x80; ++back) --size;
  return size;
}

std::string quote(const Json& value) {
  return printableJson(value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace

void JsonWriter::put(std::string_view text) {
  pending_ += text;
  if (pending_.size() < kPiece) return;
  sink_(pending_);
  pending_.clear();
}

void JsonWriter::startLine(std::size_t level) {
  put("\n");
  put(std::string(level * kIndent, ' '));
}

void JsonWriter::startValue() {
  if (std::exchange(keyed_, false) || levels_.empty()) return;
  if (!levels_.back().empty) put(",");
  levels_.back().empty = false;
  startLine(levels_.size());
}

void JsonWriter::key(std::string_view key) {
  text(key);
  put(": ");
  keyed_ = true;
}

void JsonWriter::begin(char open, char close) {
  startValue();
  put({&open, 1});
  levels_.push_back({close, true});
}

void JsonWriter::end() {
  const Level level = levels_.back();
  levels_.pop_back();
  if (!level.empty) startLine(levels_.size());
  put({&level.close, 1});
}

void JsonWriter::text(std::string_view text) {
  startValue();
  put("\"");
  while (!text.empty()) {
    const std::size_t size = pieceOf(text);
    const Json piece = text.substr(0, size);
    const std::string quoted = quote(piece);
    put(std::string_view(quoted).substr(1, quoted.size() - 2));
    text.remove_prefix(size);
  }
  put("\"");
}

void JsonWriter::hex(const u8* data, u32 size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  startValue();
  put("\"");
  for (const u8* at = data; at != data + size; ++at) {
    const char digits[] = {kDigits[*at >> 4], kDigits[*at & 0xF]};
    put({digits, sizeof digits});
  }
  put("\"");
}

void JsonWriter::value(const Json& value) {
  if (value.is_string()) return text(value.get_ref<const std::string&>());
  if (value.is_object()) {
    beginObject();
    for (const auto& [name, content] : value.items()) member(name, content);
    return end();
  }
  if (value.is_array()) {
    beginArray();
    for (const Json& content : value) this->value(content);
    return end();
  }
  startValue();
  put(quote(value));
}

void JsonWriter::finish() {
  put("\n");
  sink_(pending_);
  pending_.clear();
}

}  // namespace orv::host
