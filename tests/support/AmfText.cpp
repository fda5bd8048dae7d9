#include "support/AmfText.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "server/KTDataArray.h"

namespace orv::test {
namespace {

using Path = std::vector<const KTDataArray*>;

void print(std::ostream& out, const KTData& value, Path& path);

void printArray(std::ostream& out, const KTDataArray& array, Path& path) {
  const auto seen = std::find(path.begin(), path.end(), &array);
  if (seen != path.end()) {
    out << '^' << path.end() - seen;
    return;
  }
  path.push_back(&array);
  IndexText indexText;
  out << '[' << array.type() << "]{";
  for (u32 i = 0; i < array.size(); ++i) {
    out << (i ? ", " : "") << array.keyText(i, indexText) << ": ";
    print(out, array.valueAt(i), path);
  }
  out << '}';
  path.pop_back();
}

void printMemory(std::ostream& out, const KTBuffer& view) {
  out << '<' << (view.memory ? hexOf(view.data + view.begin, view.end - view.begin) : "none") << '>';
}

void print(std::ostream& out, const KTData& value, Path& path) {
  if (value.type() == KTData::Number) {
    out << value.toDouble();
  } else if (value.type() == KTData::Boolean) {
    out << (value.toBool() ? "true" : "false");
  } else if (value.type() == KTData::String) {
    out << '"' << value.text() << '"';
  } else {
    out << value.typeName();
  }
  if (value.subtype() != KTData::kNoSubtype) out << '#' << int{value.subtype()};
  if (value.type() == KTData::Xml) out << '"' << value.text() << '"';
  if (value.type() == KTData::Date) out << '(' << value.dateMilliseconds() << ", " << value.timezone() << ')';
  if (value.type() == KTData::Int64) out << '(' << value.toInt64() << ')';
  if (KTData::isMemory(value.type())) printMemory(out, value.memoryRange());
  if (const KTDataArray* const array = value.asArray()) printArray(out, *array, path);
}

// The number in parentheses at `at`, which moves behind it; 1 if there is none.
std::size_t repetition(const std::string& text, std::size_t& at) {
  if (at >= text.size() || text[at] != '(') return 1;
  const std::size_t close = text.find(')', at);
  const std::size_t count = std::strtoul(text.c_str() + at + 1, nullptr, 10);
  at = close + 1;
  return count;
}

}  // namespace

Bytes bytesOf(const std::string& text) {
  Bytes bytes;
  std::size_t at = 0;
  const auto takeUpTo = [&](char mark) {
    const std::size_t from = std::exchange(at, text.find(mark, at));
    bytes.insert(bytes.end(), text.begin() + static_cast<long>(from), text.begin() + static_cast<long>(at++));
  };
  while (at < text.size()) {
    const char mark = text[at];
    at += mark == ' ' || mark == '\'' || mark == '<' || mark == '=';
    if (mark == ' ') continue;
    if (mark == '\'') {
      takeUpTo('\'');
    } else if (mark == '<') {
      const std::size_t size = text.find('>', at) - at;
      bytes.insert(bytes.end(), {static_cast<u8>(size >> 8), static_cast<u8>(size)});
      takeUpTo('>');
    } else if (mark == '=') {
      char* end = nullptr;
      const auto bits = std::bit_cast<u64>(std::strtod(&text[at], &end));
      for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<u8>(bits >> shift));
      at = static_cast<std::size_t>(end - text.data());
    } else {
      bytes.push_back(static_cast<u8>(std::stoul(text.substr(at, 2), nullptr, 16)));
      at += 2;
    }
    bytes.resize(bytes.size() + repetition(text, at) - 1, bytes.empty() ? u8{0} : bytes.back());
  }
  return bytes;
}

std::string hexOf(const u8* data, std::size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0xF];
  }
  return text;
}

std::string describe(const KTData& value) {
  std::ostringstream out;
  out.precision(17);
  Path path;
  print(out, value, path);
  return out.str();
}

std::vector<AmfCase> amfCases() {
  std::vector<AmfCase> cases;
  std::ifstream in(FLV_TEST_DATA "/amf.txt");
  std::string section;
  for (std::string line; std::getline(in, line);) {
    if (line[0] == '[') section = line.substr(1, line.size() - 2);
    if (line[0] == '[' || line[0] == '#') continue;
    const std::size_t name = line.find(": "), value = line.find(" | "), written = line.find(" | ", value + 3);
    AmfCase& row = cases.emplace_back(AmfCase{section, line.substr(0, name), {}, {}, {}});
    row.bytes = line.substr(name + 2, value - name - 2);
    row.value = line.substr(value + 3, written == std::string::npos ? written : written - value - 3);
    row.written = written == std::string::npos ? row.bytes : line.substr(written + 3);
  }
  return cases;
}

}  // namespace orv::test
