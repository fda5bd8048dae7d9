#include "platform/WideFormat.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using orv::platform::formatWide;

// The text, or "failed".
std::u16string printed(const char16_t* format, ...) {
  char16_t out[4096];
  std::va_list arguments;
  va_start(arguments, format);
  const i64 length = formatWide(out, std::size(out), format, arguments);
  va_end(arguments);
  return length < 0 ? u"failed" : std::u16string(out, static_cast<std::size_t>(length));
}

i64 printedInto(char16_t* out, std::size_t size, const char16_t* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const i64 length = formatWide(out, size, format, arguments);
  va_end(arguments);
  return length;
}

TEST(WideFormat, numbersAreTheCLibrarys) {
  EXPECT_EQ(u"-5|+7|007|   7|7   |0x1f|1F|17",
            printed(u"%d|%+d|%03d|%4i|%-4d|%#x|%X|%o", -5, 7, 7, 7, 7, 31, 31, 15));
  EXPECT_EQ(u"-1 255 -1 65535 4294967295", printed(u"%hhd %hhu %hd %hu %u", 255, 255, 65535, 65535, -1));
  const i64 big = -0x123456789ABCDEF;
  EXPECT_EQ(u"-81985529216486895 fedcba9876543211 -81985529216486895",
            printed(u"%lld %I64x %jd", big, big, big));
  EXPECT_EQ(u"-1 4294967295 -1", printed(u"%ld %lu %I32d", -1, -1, -1));  // `long` has 32 bits.
  EXPECT_EQ(u"1.500000 2.50e+00 0.1 1", printed(u"%f %.2e %g %.0Lf", 1.5, 2.5, 0.1, 1.0L));
  EXPECT_EQ(u"   42|42   |  007|0xab",
            printed(u"%*d|%*d|%*.*d|%p", 5, 42, -5, 42, 5, 3, 7, reinterpret_cast<void*>(0xAB)));
  EXPECT_EQ(std::u16string(599, u' ') + u"1", printed(u"%600d", 1));
}

TEST(WideFormat, textsAreWideOrNarrowByLetterAndPrefix) {
  EXPECT_EQ(u"wide narrow wide narrow wide",
            printed(u"%s %S %ls %hs %wS", u"wide", "narrow", u"wide", "narrow", u"wide"));
  EXPECT_EQ(
      u"A\x2122"
      u"B\x00E9",
      printed(u"%c%c%C%C", 'A', 0x2122, 'B', 0xE9));
  EXPECT_EQ(u"[  ab][ab  ][a][  a]", printed(u"[%4s][%-4S][%.1s][%3.1S]", u"ab", "ab", u"ab", "ab"));
  EXPECT_EQ(u"(null) (nu 100%", printed(u"%s %.3S 100%%", nullptr, nullptr));
  EXPECT_EQ(u" \x20AC\xFF\xC3|", printed(u"%4S|", "\xE2\x82\xAC\xFF\xC3"));
}

TEST(WideFormat, readsNothingBehindAPrecision) {
  const char16_t wide[2] = {u'a', u'b'};
  const char narrow[2] = {'\xE2', '\x82'};
  EXPECT_EQ(u"ab\xE2\x82", printed(u"%.2s%.*S", wide, 2, narrow));
}

TEST(WideFormat, failsAtWhatItCannotTell) {
  for (const char16_t* format :
       {u"%", u"a%5", u"%y%s", u"%n", u"%1$d", u"%65537d", u"%.99999999999d", u"%l", u"%\x20AC"})
    EXPECT_EQ(u"failed", printed(format)) << std::string(format, format + 2);
  EXPECT_EQ(u"failed", printed(u"%*d", 65537, 1));
  EXPECT_EQ(u"failed", printed(nullptr));
}

TEST(WideFormat, cutsAtTheSizeAndTellsTheWholeLength) {
  char16_t out[5] = {u'#', u'#', u'#', u'#', u'#'};
  EXPECT_EQ(6, printedInto(out, 4, u"%d%S", 123, "456"));
  EXPECT_EQ(std::u16string(u"123\0#", 5), std::u16string(out, 5));
  EXPECT_EQ(3, printedInto(out, 4, u"abc"));
  EXPECT_EQ(std::u16string(u"abc\0#", 5), std::u16string(out, 5));
  EXPECT_EQ(65536, printedInto(nullptr, 0, u"%65536s", u""));
}

}  // namespace
