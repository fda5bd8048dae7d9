// Foreign texts: strings, numbers, URL texts, formats, dates, paths and settings.
//
// Input: one byte, where the text is split in two (in 255ths), then the text.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>

#include "modules/streams/flv/FLVAdaptor.h"
#include "support/HeapWatch.h"
#include "support/MemoryHost.h"
#include "util/KTPathUtil.h"
#include "util/KTTime.h"

#define HOLDS(condition) \
  if (!(condition)) std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::abort()

namespace orv::test {
namespace {

namespace paths = orv::util::paths;

template <class Text>
void checkPieces(const Text& whole, const Text& first, const Text& second) {
  HOLDS(first + second == whole && first.length() + second.length() == whole.length());
  HOLDS(first.compare(second) == -second.compare(first));
  HOLDS((first == second) == (first.compare(second) == 0));
  const i32 found = whole.find(second.c_str());
  const i32 length = static_cast<i32>(typename Text::View(second.c_str()).size());
  HOLDS(found >= 0 && found <= first.length() && whole.rfind(second.c_str()) >= (length ? found : 0));
  HOLDS(whole.substring(found, length) == Text(second.c_str()));
  Text trimmed(whole);
  HOLDS(trimmed.trim().length() <= whole.length() && Text(trimmed).trim() == trimmed);
  Text grown(first);
  for (const auto unit : second.view()) grown += unit;
  HOLDS(grown == whole && grown.equalsNoCase(whole));
}

void checkNumbers(const KTString& text) {
  const i64 number = text.toInt64();
  HOLDS(KTString::fromNumber(number).toInt64() == number);
  HOLDS(text.toInt() ==
        std::clamp<i64>(number, std::numeric_limits<i32>::min(), std::numeric_limits<i32>::max()));
  const double real = text.toDouble();
  HOLDS(!(real == real) || KTString::fromNumber(real).toDouble() == real);
}

void checkCodes(const KTString& text, const KTWideString& wide) {
  for (const bool blanks : {false, true}) HOLDS(text.urlEncode(blanks).urlDecode() == text);
  HOLDS(KTString(text).urlDecode().length() <= text.length());
  HOLDS(wide.empty() || toNarrow(wide) == text);
  HOLDS(KTString::hexOf(text.c_str(), static_cast<u32>(text.length())).length() == 2 * text.length());
}

// The pattern may ask for what it likes: each argument is the address of a text that ends as wide text too.
void checkFormat(const KTWideString& pattern) {
  const KTWideString::View view(pattern.c_str());
  const auto asked =
      std::count_if(view.begin(), view.end(), [](char16_t c) { return c == u'%' || c == u'*'; });
  if (asked > 6) return;
  alignas(char16_t) static const char text[] = "abcdefgh\0";
  KTWideString out(u"old");
  out.format(pattern.c_str(), text, text, text, text, text, text, text, text, text, text, text, text, text,
             text, text, text);
  HOLDS(out.length() <= 65535);
  HOLDS(asked > 0 || view.size() > 65535 || out.view() == view);
}

void checkDates(const KTString& text, const KTWideString& wide) {
  for (const bool relative : {false, true}) {
    const KTTimeSpan span = KTTimeSpan::parse(text.c_str(), relative);
    span.toText();
    span.formatSpan(wide.c_str());
  }
}

void checkPaths(const KTWideString& path, const KTWideString& base, const KTWideString& relative) {
  const KTWideString turned = paths::toBackslashes(path);
  HOLDS(turned.length() == path.length() && turned.find(u'/') < 0);
  HOLDS(paths::fileName(path).find(u'\\') < 0 && paths::toForwardSlashes(path).find(u'\\') < 0);
  HOLDS(paths::safeFileName(path).find(u'/') < 0 && paths::safeFileName(path).length() == path.length());
  HOLDS(paths::stripTrailingSeparator(path).length() <= path.length() + 1);
  const KTString native = paths::toNative(path);
  HOLDS(native.find('\0') < 0 && native.find('\\') < 0);
  KTWideString out;
  const bool joined = paths::join(base, relative, &out, false, false);
  HOLDS(!joined || !paths::isAbsolute(paths::toBackslashes(relative)));
  HOLDS(out.length() >= base.length() && out.left(base.length()).length() == base.length());
}

// Each line is a setting.
void checkSettings(std::string_view text) {
  MemoryHost context;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    const std::size_t equals = std::min(line.find('='), line.size());
    context.settings[std::string(line.substr(0, equals))] = line.substr(std::min(equals + 1, line.size()));
  }
  flv::FLVAdaptor adaptor(&context);  // Reads all that it knows.
  for (const auto& [key, value] : context.settings) {
    u32 number = 5;
    adaptor.readConfigUnsigned(key.c_str(), number, 3, 1000);
    HOLDS(number >= 3 && number <= 1000);
    bool flag = true;
    adaptor.readConfigBool(key.c_str(), flag);
    HOLDS(flag || std::string(value.c_str()) == "false");
  }
}

void check(std::string_view bytes, std::size_t cut) {
  const KTString text(bytes.data(), static_cast<i64>(bytes.size()));
  const KTString first = text.left(static_cast<i32>(cut)), second = text.substring(static_cast<i32>(cut));
  checkPieces(text, first, second);
  const KTWideString wide = toWide(text), wideFirst = toWide(first), wideSecond = toWide(second);
  if (wide.length() == wideFirst.length() + wideSecond.length()) checkPieces(wide, wideFirst, wideSecond);
  checkNumbers(text);
  checkCodes(text, wide);
  checkFormat(wide);
  checkDates(text, wide);
  checkPaths(wide, wideFirst, wideSecond);
  checkSettings(bytes);
}

}  // namespace
}  // namespace orv::test

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace orv::test;
  if (size < 1 || size > 1 << 16) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  check(text, text.size() * data[0] / 255);  // Once for what is made but once.
  const HeapWatch heap;
  check(text, text.size() * data[0] / 255);
  HOLDS(heap->live == 0);
  return 0;
}
