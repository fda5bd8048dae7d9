#include "util/KTString.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "util/KTThrowable.h"
#include "util/KTWideString.h"

namespace {

bool isEmptyConstant(const KTString& text) {
  return text.c_str() == KTString().c_str() && KTStringPool::kind(text.c_str()) == KTStringPool::kEmpty;
}

TEST(KTString, emptyTextsShareOneConstant) {
  KTString used("x");
  const char* const none = nullptr;
  for (const KTString& text :
       {KTString(), KTString(none), KTString(""), KTString("abc", 0), KTString(none, 7),
        KTString("abc").substring(3), KTString(" \t").trim(), used = ""})
    EXPECT_TRUE(isEmptyConstant(text));
  EXPECT_TRUE(isEmptyConstant(used));
  EXPECT_EQ(0, used.length());
  EXPECT_STREQ("", used.c_str());
}

TEST(KTString, headerStandsInFrontOfTheText) {
  const std::string text(0x012345, 'q');
  const KTString narrow(text.c_str());
  const u8* const header = reinterpret_cast<const u8*>(narrow.c_str()) - 4;
  EXPECT_EQ(std::string("\x01\x23\x45\x01"), std::string(header, header + 4));
  const KTWideString wide(u"ab");
  EXPECT_EQ(2, reinterpret_cast<const u8*>(wide.c_str())[-2]);
  EXPECT_EQ(KTStringPool::kPrivate, reinterpret_cast<const u8*>(wide.c_str())[-1]);
}

TEST(KTString, appendingKeepsTheBlockUntilItsRoomEnds) {
  KTString text("12345");
  const char* const place = text.c_str();
  while (text.length() < 30) EXPECT_EQ(place, (text += 'x').c_str());
  text += 'y';
  EXPECT_NE(place, text.c_str());
  // The text may be its own source, with and without a move.
  const std::string once = "12345" + std::string(25, 'x') + "y";
  EXPECT_EQ(once + once, text.append(text.c_str()).c_str());
  text = text.c_str() + 1;
  EXPECT_EQ(once.substr(1) + once, text.c_str());
  text = text.c_str() + 59;
  EXPECT_STREQ("xyxy", (text += text).c_str());
}

TEST(KTString, copiesAreDuplicatesAndCompareByText) {
  const KTString text("abc\0d", 5);
  KTString copy(text);
  EXPECT_NE(text.c_str(), copy.c_str());
  EXPECT_TRUE(text == copy && !(text != copy) && text != "abc" && text != KTString("abc\0e", 5));
  const char* const place = copy.c_str();
  EXPECT_EQ(place, (copy = "something else").c_str());  // There was room.
  copy = text;
  EXPECT_EQ(text, copy);
  KTString moved(std::move(copy));
  EXPECT_EQ(place, moved.c_str());
  const KTString& self = moved;
  moved = self;
  EXPECT_EQ(text, moved);
}

TEST(KTString, comparesByUnsignedCharacter) {
  const struct {
    const char *a, *b;
    i32 order;
    bool sameNoCase;
  } kCases[] = {{"a", "b", -1, false},        {"b", "a", 1, false},    {"a", "a", 0, true},
                {"a", "ab", -1, false},       {"\xff", "a", 1, false}, {"", nullptr, 0, true},
                {"onMeta", "ONmETA", 1, true}};
  for (const auto& c : kCases) {
    EXPECT_EQ(c.order, KTString(c.a).compare(c.b)) << c.a;
    EXPECT_EQ(c.order < 0, KTString(c.a) < KTString(c.b)) << c.a;
    EXPECT_EQ(c.sameNoCase, KTString(c.a).equalsNoCase(KTString(c.b))) << c.a;
    EXPECT_EQ(c.sameNoCase, KTString(c.a).equalsNoCase(c.b)) << c.a;
  }
  EXPECT_EQ(1, KTWideString(u"\xFFFF").compare(u"a"));
  EXPECT_TRUE(KTWideString(u"FLV").equalsNoCase(u"flv") && KTString("A\0b", 3).equalsNoCase("a"));
}

TEST(KTString, searchesAndPieces) {
  const KTWideString path(u"C:\\a\\b.flv");
  const KTString abc("abc");
  const char* const none = nullptr;
  EXPECT_EQ((std::vector<i32>{2, 4, -1, 2, 4, -1}),
            (std::vector<i32>{path.find(u'\\'), path.rfind(u'\\'), path.find(u'?'), path.find(u"\\"),
                              path.rfind(u"\\"), path.rfind(u".f4v")}));
  EXPECT_EQ((std::vector<i32>{0, 0, 0, 'c', 0, 0}),
            (std::vector<i32>{abc.rfind(""), abc.rfind(none), abc.find(none), abc[2], abc[3], abc[-1]}));
  const struct {
    i32 start, count;
    const char* piece;
  } kPieces[] = {{10, 5, ""},   {1, -1, "bc"}, {1, 1, "b"}, {1, 99, "bc"},
                 {-5, 2, "ab"}, {0, 0, ""},    {3, 1, ""}};
  for (const auto& p : kPieces) EXPECT_STREQ(p.piece, abc.substring(p.start, p.count).c_str()) << p.start;
  EXPECT_STREQ("a b", KTString(" \t\n a b\v\f\r ").trim().c_str());
  EXPECT_TRUE(KTWideString(u"x") == KTWideString(u" \x3000 x ").trim() || !iswspace(0x3000));
  EXPECT_STREQ("abcabc-d", (abc + abc + "-" + 'd').c_str());
  EXPECT_STREQ("<abc", ("<" + abc).c_str());
}

TEST(KTString, readsNumbersWithinTheirLimits) {
  const struct {
    const char* text;
    i32 narrow;
    i64 wide;
    double real;
  } kNumbers[] = {{"", 0, 0, 0},
                  {"  -12x", -12, -12, -12},
                  {"2147483648", 2147483647, 2147483648, 2147483648.0},
                  {"-2147483649", std::numeric_limits<i32>::min(), -2147483649, -2147483649.0},
                  {"99999999999999999999", 2147483647, std::numeric_limits<i64>::max(), 1e20},
                  {"1.5e3", 1, 1, 1500}};
  for (const auto& n : kNumbers) {
    const KTString text(n.text);
    const KTWideString wide = toWide(text);
    EXPECT_EQ(std::tuple(n.narrow, n.wide, n.real), std::tuple(text.toInt(), text.toInt64(), text.toDouble()))
        << n.text;
    EXPECT_EQ(std::tuple(n.narrow, n.wide, n.real),
              std::tuple(wide.toLong(), wide.toInt64(), wide.toDouble()))
        << n.text;
  }
}

TEST(KTString, writesNumbers) {
  EXPECT_EQ(KTString::fromNumber(i16{-5}), "-5");
  EXPECT_EQ(KTString::fromNumber(std::numeric_limits<i64>::min()), "-9223372036854775808");
  EXPECT_EQ(KTString::fromNumber(0xFFFFFFFFu), "4294967295");
  EXPECT_EQ(KTString::fromNumber(-1LL) + KTString::fromNumber(~0ULL), "-118446744073709551615");
  EXPECT_EQ(KTWideString::fromNumber(-1LL) + KTWideString::fromNumber(~0ULL), u"-118446744073709551615");
  EXPECT_EQ(KTString::fromNumber(0.1), "0.10000000000000001");
  EXPECT_EQ(KTString::fromNumber(1e300), "1.0000000000000001e+300");
  EXPECT_EQ(KTString::fromNumber(25.0), "25");
  EXPECT_EQ(KTString::fromNumber(reinterpret_cast<void*>(0xABC)), "0xabc");
  EXPECT_EQ(KTWideString::fromNumber(std::numeric_limits<u64>::max()), u"18446744073709551615");
  EXPECT_EQ(KTWideString::fromNumber(std::numeric_limits<i64>::min()), u"-9223372036854775808");
  EXPECT_EQ(KTWideString::fromNumber(2.5), u"2.500000");
}

TEST(KTString, codesUrls) {
  const KTString raw("aZ9 \x19\x1a~%\x7f\x80-", 11);
  EXPECT_EQ(raw.urlEncode(false), "aZ9 \x19%1a%7e%25%7f\x80%2d");
  EXPECT_EQ(raw.urlEncode(true), "aZ9%20\x19%1a%7e%25%7f\x80%2d");
  EXPECT_EQ(raw.urlEncode(true).urlDecode(), raw);
  const struct {
    const char *coded, *text;
  } kCases[] = {{"%41%4a%4A", "AJJ"}, {"%4z", "\x04z"},     {"%", "%"},
                {"%4", "\x04"},       {"100%zz", "100%zz"}, {"+", "+"}};
  for (const auto& c : kCases) EXPECT_STREQ(c.text, KTString(c.coded).urlDecode().c_str()) << c.coded;
  EXPECT_EQ(KTString::hexOf("\x00\x9f\xff", 3), "009fff");
  EXPECT_TRUE(KTString::hexOf(nullptr, 0).empty());
}

TEST(KTString, refusesTextsThatNoHeaderCanTellOf) {
  KTString longest(std::string(KTStringPool::kMaxLength, 'x').c_str());
  EXPECT_EQ(16777215, longest.length());
  EXPECT_THROW(longest += 'y', KTOutOfMemory);
  EXPECT_THROW(longest + "y", KTOutOfMemory);
  EXPECT_THROW(KTString(std::string(KTStringPool::kMaxLength + 1, 'x').c_str()), KTOutOfMemory);
  EXPECT_THROW(KTString("x", i64{1} << 40), KTOutOfMemory);
  EXPECT_THROW(KTString::hexOf("", 0x80000000u), KTOutOfMemory);
  EXPECT_EQ(16777215, longest.length());
  EXPECT_EQ('x', longest[16777214]);
}

TEST(KTWideString, convertsOneUnitToOneSequence) {
  std::u16string all;
  for (u32 unit = 0; unit <= 0xFFFF; ++unit) all += static_cast<char16_t>(unit);
  const KTWideString wide(all.data(), 0x10000);
  const KTString narrow = toNarrow(wide);
  EXPECT_EQ(128 + 2 * 1920 + 3 * 63488, narrow.length());
  EXPECT_EQ(wide, toWide(narrow));
  EXPECT_EQ(toNarrow(KTWideString(u"\x20AC")), "\xE2\x82\xAC");
  EXPECT_EQ(KTWideString::fromAnsi("A\x80\xFF"), u"A\x00C7\x00A0");
}

TEST(KTWideString, oneBadSequenceEmptiesTheConversion) {
  const std::string kBad[] = {"\x80",     "\xC1\x80",     "\xC2",         "\xC2\x41",         "\xE0\x9F\xBF",
                              "\xE1\x80", "\xE1\x80\xC0", "\xE1\xC0\x80", "\xF0\x9F\x98\x80", "\xFF"};
  for (const std::string& bad : kBad) {
    const std::string text = "ok" + bad;
    EXPECT_TRUE(toWide(KTString(text.c_str())).empty()) << testing::PrintToString(bad);
  }
  EXPECT_EQ(toWide("\xED\xA0\xBD\xED\xB8\x80"), u"\xD83D\xDE00");  // Surrogates travel one by one.
}

TEST(KTWideString, formatsNumbersAsTheCLibraryDoes) {
  KTWideString text;
  EXPECT_EQ(text.format(u"%d|%+d|%03d|%4i|%-4d|%#x|%X|%o", -5, 7, 7, 7, 7, 31, 31, 15),
            u"-5|+7|007|   7|7   |0x1f|1F|17");
  EXPECT_EQ(text.format(u"%hhd %hhu %hd %hu %u", 255, 255, 65535, 65535, -1), u"-1 255 -1 65535 4294967295");
  const i64 big = -0x123456789ABCDEF;
  EXPECT_EQ(text.format(u"%lld %I64x %jd", big, big, big),
            u"-81985529216486895 fedcba9876543211 -81985529216486895");
  EXPECT_EQ(text.format(u"%ld %lu %I32d", -1, -1, -1), u"-1 4294967295 -1");  // `long` has 32 bits.
  EXPECT_EQ(text.format(u"%f %.2e %g %.0Lf", 1.5, 2.5, 0.1, 1.0L), u"1.500000 2.50e+00 0.1 1");
  EXPECT_EQ(text.format(u"%*d|%*d|%*.*d|%p", 5, 42, -5, 42, 5, 3, 7, reinterpret_cast<void*>(0xAB)),
            u"   42|42   |  007|0xab");
}

TEST(KTWideString, formatsTextsByLetterAndPrefix) {
  KTWideString text;
  EXPECT_EQ(text.format(u"File contains bad data : %S (%S:%d)", u"a.flv", u"b", 7),
            u"File contains bad data : a.flv (b:7)");
  EXPECT_EQ(text.format(u"%S %s %ls %hs %wS", u"wide", "narrow", u"wide", "narrow", u"wide"),
            u"wide narrow wide narrow wide");
  EXPECT_EQ(text.format(u"%C%C%c%c|", 'A', 0x2122, 'B', 0xE9), u"A\x2122\x0042\xE9|");
  // Only the letter directly behind the percent sign is swapped.
  EXPECT_EQ(text.format(u"[%4s][%-4S][%.1s][%3.1S]", u"ab", "ab", u"ab", "ab"), u"[  ab][ab  ][a][  a]");
  EXPECT_EQ(text.format(u"<%S>", text.c_str()), u"<[  ab][ab  ][a][  a]>");
  EXPECT_EQ(text.format(u"%S %.3S 100%%", nullptr, nullptr), u"(null) (nu 100%");
  EXPECT_EQ(text.format(u"%%S%%%S%%%%s%", u"a"), KTWideString());
  EXPECT_EQ(text.format(u"%%S%%%S%%%%s", u"a"), u"%S%a%%s");
  EXPECT_EQ(text.format(u"%4S|", "\xE2\x82\xAC\xFF\xC3"), u" \x20AC\xFF\xC3|");
  const char16_t wide[2] = {u'a', u'b'};
  const char narrow[2] = {'\xE2', '\x82'};  // Nothing behind the precision is read.
  EXPECT_EQ(text.format(u"%.2s%.*S", wide, 2, narrow), u"ab\xE2\x82");
}

TEST(KTWideString, formatsNothingThatItCannotTellOrHold) {
  KTWideString text;
  for (const char16_t* format : {u"%", u"a%5", u"%y%s", u"%n", u"%1$d", u"%.65537d", u"%.99999999999d", u"%l",
                                 u"%\x20AC", static_cast<const char16_t*>(nullptr)})
    EXPECT_TRUE((text = u"old").format(format, 1).empty()) << KTString(toNarrow(format)).c_str();
  for (const i32 length : {512, 2047, 2048, 65534, 65535}) {
    const std::u16string blanks(static_cast<std::size_t>(length - 1), u' ');
    EXPECT_EQ(text.format(u"%*d", length, 1), (blanks + u"1").c_str()) << length;
    EXPECT_EQ(text.format(u"%*s", length, u"1"), (blanks + u"1").c_str()) << length;
  }
  EXPECT_TRUE(text.format(u"%65536d", 1).empty());
  EXPECT_EQ(text.format(u"%.65536s", u"x"), u"x");
  EXPECT_TRUE(text.format(u"%.65537s", u"x").empty());
}

}  // namespace
