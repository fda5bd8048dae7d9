// Bytes and values as the tests write them down.

#pragma once

#include <string>
#include <vector>

#include "server/KTData.h"
#include "support/FileImage.h"

namespace orv::test {

// "02 0005 'hello'": pairs of hexadecimal digits and quoted text, blanks where they please. A number in
// parentheses repeats the byte in front of it, or the quoted character: "00(8)", "'a'(65536)". "<key>" is a
// text with its length in two bytes in front, "=0.5" a number in eight.
Bytes bytesOf(const std::string& text);

// The opposite, all in digits.
std::string hexOf(const u8* data, std::size_t size);
inline std::string hexOf(const Bytes& bytes) {
  return hexOf(bytes.data(), bytes.size());
}

// Plain values.
inline KTData number(double value) {
  return KTData::ofNumber(value);
}
inline KTData text(const char* value) {
  return KTData::ofText(value);
}
inline KTData boolean(bool value) {
  return KTData::ofBool(value);
}

// A value with its types: 1.5, true, "text", null, undefined, Object{key: 1}, EcmaArray[9]{...} with the
// array's type in brackets, Xml#7"..." with a subtype that isn't 6, Memory<0102>, Int64(5), Date(5, 60). An
// array inside itself shows as ^ and the number of levels up.
std::string describe(const KTData& value);

// A line of tests/data/amf.txt.
struct AmfCase {
  std::string section, name, bytes, value, written;
};
std::vector<AmfCase> amfCases();

}  // namespace orv::test
