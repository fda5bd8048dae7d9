// Bytes and values as the tests write them down.

#pragma once

#include <string>

#include "server/KTData.h"
#include "support/FileImage.h"

namespace orv::test {

// "02 0005 'hello'": pairs of hexadecimal digits and quoted text, blanks where they please. A number in
// parentheses repeats the byte in front of it, or the quoted character: "00(8)", "'a'(65536)".
Bytes bytesOf(const std::string& text);

// The opposite, all in digits.
std::string hexOf(const u8* data, std::size_t size);
inline std::string hexOf(const Bytes& bytes) {
  return hexOf(bytes.data(), bytes.size());
}

// Plain values.
KTData number(double value);
KTData text(const char* value);
KTData boolean(bool value);

// A value with its types: 1.5, true, "text", null, undefined, Object{key: 1}, EcmaArray[9]{...} with the
// array's type in brackets, Xml#7"..." with a subtype that isn't 6, Memory<0102>, Int64(5), Date(5, 60). An
// array inside itself shows as ^ and the number of levels up.
std::string describe(const KTData& value);

}  // namespace orv::test
