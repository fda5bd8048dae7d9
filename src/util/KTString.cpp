#include "util/KTString.h"

#include <boost/lexical_cast.hpp>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/Numbers.h"
#include "util/KTThrowable.h"

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kBlank = ' ';
constexpr u8 kFirstEncoded = 26;
constexpr u8 kLastEncoded = 127;

template <class Number>
KTString printed(const char* format, Number value) {
  char text[32];
  return {text, std::snprintf(text, sizeof text, format, value)};
}

bool isAsciiAlphanumeric(char character) {
  return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
         (character >= 'a' && character <= 'z');
}

bool staysInUrl(char character, bool encodeBlank) {
  const u8 byte = static_cast<u8>(character);
  if (character == kBlank) return !encodeBlank;
  return byte < kFirstEncoded || byte > kLastEncoded || isAsciiAlphanumeric(character);
}

// -1 for anything that is no hexadecimal digit.
i32 hexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

void appendHex(std::string& text, u8 byte) {
  text += kHexDigits[byte >> 4];
  text += kHexDigits[byte & 0xF];
}

KTString fromStandard(const std::string& text) {
  return {text.data(), static_cast<i64>(text.size())};
}

}  // namespace

KTString KTString::fromNumber(i32 value) {
  return printed("%" PRId32, value);
}

KTString KTString::fromNumber(u32 value) {
  return printed("%" PRIu32, value);
}

KTString KTString::fromNumber(i64 value) {
  return printed("%" PRId64, value);
}

KTString KTString::fromNumber(u64 value) {
  return printed("%" PRIu64, value);
}

KTString KTString::fromNumber(const void* value) {
  return printed("%p", value);
}

KTString KTString::fromNumber(double value) {
  return fromStandard(boost::lexical_cast<std::string>(value));
}

KTString KTString::hexOf(const void* bytes, u32 length) {
  if (length > KTStringPool::kMaxLength / 2) throw KTOutOfMemory();
  std::string text;
  text.reserve(std::size_t{length} * 2);
  for (u32 i = 0; i < length; ++i) appendHex(text, static_cast<const u8*>(bytes)[i]);
  return fromStandard(text);
}

i32 KTString::toInt() const {
  return orv::platform::parseInt32(text_);
}

i64 KTString::toInt64() const {
  return std::strtoll(text_, nullptr, 10);
}

double KTString::toDouble() const {
  return std::strtod(text_, nullptr);
}

KTString KTString::urlEncode(bool encodeBlank) const {
  std::string text;
  for (const char character : view()) {
    if (staysInUrl(character, encodeBlank)) {
      text += character;
    } else {
      text += '%';
      appendHex(text, static_cast<u8>(character));
    }
  }
  return fromStandard(text);
}

KTString& KTString::urlDecode() {
  if (find('%') < 0) return *this;
  text_ = KTStringPool::makePrivate(text_);
  const i32 end = length();
  i32 to = 0;
  for (i32 from = 0; from < end; ++to) {
    const i32 high = text_[from] == '%' ? hexValue((*this)[from + 1]) : -1;
    if (high < 0) {
      text_[to] = text_[from++];
      continue;
    }
    const i32 low = hexValue((*this)[from + 2]);
    text_[to] = static_cast<char>(low < 0 ? high : high * 16 + low);
    from += low < 0 ? 2 : 3;
  }
  text_ = KTStringPool::truncate(text_, to);
  return *this;
}
