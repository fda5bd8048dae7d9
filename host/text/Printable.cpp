#include "host/text/Printable.h"

#include <fmt/format.h>

namespace orv::host {

namespace {

bool isControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7F;
}

// Returns the length of the UTF-8 sequence at the front of `text`; 0 if there is none, or if it is a control
// character.
std::size_t sequenceLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return isControl(first) ? 0 : 1;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return 0;
  }
  const auto second = static_cast<unsigned char>(text[1]);
  const bool isSecondControlSet = first == 0xC2 && second < 0xA0;
  const bool isTooLong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool isNoCharacter = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
  return isSecondControlSet || isTooLong || isNoCharacter ? 0 : length;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = sequenceLength(text);
    if (length == 0) {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[0]));
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

std::string printableJson(std::string_view json) {
  std::string out;
  out.reserve(json.size());
  while (!json.empty()) {
    const auto byte = static_cast<unsigned char>(json[0]);
    const auto next = static_cast<unsigned char>(json.size() > 1 ? json[1] : 0);
    const bool isSecondControlSet = byte == 0xC2 && next < 0xA0;
    if (isSecondControlSet || byte == 0x7F) {
      out += fmt::format("\\u{:04x}", isSecondControlSet ? next : byte);
    } else {
      out += json[0];
    }
    json.remove_prefix(isSecondControlSet && json.size() > 1 ? 2 : 1);
  }
  return out;
}

}  // namespace orv::host
