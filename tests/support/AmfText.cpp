#include "support/AmfText.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

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
  bool quoted = false;
  for (std::size_t at = 0; at < text.size();) {
    if (text[at] == '\'') {
      quoted = !quoted;
      ++at;
    } else if (!quoted && text[at] == ' ') {
      ++at;
      continue;
    } else {
      const std::size_t width = quoted ? 1 : 2;
      const std::string token = text.substr(at, width);
      bytes.push_back(quoted ? static_cast<u8>(token[0]) : static_cast<u8>(std::stoul(token, nullptr, 16)));
      at += width;
    }
    if (!quoted) bytes.resize(bytes.size() + repetition(text, at) - 1, bytes.empty() ? u8{0} : bytes.back());
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
