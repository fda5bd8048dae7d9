#include "platform/Utf8.h"

#include "platform/Types.h"

namespace orv::platform {

namespace {

constexpr u32 kContinuationBits = 6;

bool isContinuation(u8 byte) {
  return (byte & 0xC0) == 0x80;
}

char continuation(u32 bits) {
  return static_cast<char>(0x80 | (bits & 0x3F));
}

}  // namespace

std::size_t utf8Length(u8 lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xC2) return 0;  // A stray continuation byte, or a form that one byte would hold.
  if (lead < 0xE0) return 2;
  return lead < 0xF0 ? 3 : 0;
}

std::size_t encodeUtf8(char16_t unit, char* out) {
  const u32 value = unit;
  if (value < 0x80) {
    out[0] = static_cast<char>(value);
    return 1;
  }
  if (value < 0x800) {
    out[0] = static_cast<char>(0xC0 | (value >> kContinuationBits));
    out[1] = continuation(value);
    return 2;
  }
  out[0] = static_cast<char>(0xE0 | (value >> (2 * kContinuationBits)));
  out[1] = continuation(value >> kContinuationBits);
  out[2] = continuation(value);
  return 3;
}

std::size_t decodeUtf8(const char* text, std::size_t size, char16_t* unit) {
  if (size == 0) return 0;
  const u8 lead = static_cast<u8>(text[0]);
  const std::size_t length = utf8Length(lead);
  if (length == 0 || length > size) return 0;
  u32 value = length == 1 ? lead : lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const u8 byte = static_cast<u8>(text[i]);
    if (!isContinuation(byte)) return 0;
    value = (value << kContinuationBits) | (byte & 0x3F);
  }
  if (length == 3 && value < 0x800) return 0;  // A form that two bytes would hold.
  *unit = static_cast<char16_t>(value);
  return length;
}

}  // namespace orv::platform
