#include "util/KTTime.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

namespace {

using orv::util::KTTimeValueError;

constexpr i64 kMin = std::numeric_limits<i64>::min(), kMax = std::numeric_limits<i64>::max();

class KTTime : public testing::Test {
 protected:
  KTTime() { setZone("UTC0"); }
  static void setZone(const char* zone) { setenv("TZ", zone, 1); }
};

std::string narrow(const KTWideString& text) {
  return toNarrow(text).c_str();
}

std::string thrownBy(const auto& action) {
  try {
    action();
  } catch (const KTTimeValueError& error) {
    return narrow(error.message);
  }
  return "nothing";
}

std::vector<int> fieldsOf(const std::tm& t) {
  return {t.tm_year + 1900, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_wday, t.tm_yday};
}

std::vector<int> fieldsOf(const KTTimeSpan& t) {
  return {t.year(), t.month(), t.day(), t.hour(), t.minute(), t.second(), t.dayOfWeek(), t.dayOfYear()};
}

TEST_F(KTTime, countsThatAreNoTimesHaveTextsOfTheirOwn) {
  const i64 userFirst = -0x6000000000000000, userEnd = -0x4000000000000000;
  const struct {
    i64 ticks;
    std::string text;
  } kCases[] = {{kMin, "-infinity"},        {kMin + 1, "notATime"},        {kMin + 2, "invalid"},
                {userFirst - 1, "invalid"}, {userFirst, "userSpecial(0)"}, {userEnd - 1, "userSpecial(-1)"},
                {userEnd, "<1970"},         {kMax - 1, ">2038"},           {kMax, "+infinity"}};
  for (const auto& c : kCases) {
    const KTTimeValue value(c.ticks);
    EXPECT_EQ(c.text, narrow(value.toText())) << c.ticks;
    EXPECT_EQ(c.text == "invalid", value.isInvalid()) << c.ticks;
    if (value.isTime()) continue;
    EXPECT_EQ(c.text, narrow(value.formatSpan())) << c.ticks;
    EXPECT_EQ("failed to convert to localtime", thrownBy([&] { value.toLocalTime(); }));
    EXPECT_EQ("failed to convert to gmtime", thrownBy([&] { value.toUtcTime(); }));
  }
  for (const i64 number : {i64{0}, i64{-1}, i64{77}, (i64{1} << 60) - 1, -(i64{1} << 60)})
    EXPECT_EQ(number, KTTimeValue::fromUserValue(number).userValue());
  EXPECT_EQ("not user value", thrownBy([] { KTTimeValue(0).userValue(); }));
}

TEST_F(KTTime, scalesAndCalculatesOnTheCount) {
  EXPECT_EQ(70, KTTimeValue::fromMicroseconds(7).ticks());
  EXPECT_EQ(-70'000, KTTimeValue::fromMilliseconds(-7).ticks());
  EXPECT_EQ(70'000'000, KTTimeValue::fromSeconds(7).ticks());
  const KTTimeValue value(-12'345'678'901);
  EXPECT_EQ((std::vector<i64>{-1'234'567'890, -1'234'567, -1'234}),
            (std::vector<i64>{value.microseconds(), value.milliseconds(), value.seconds()}));
  EXPECT_EQ(-12'345'678'904, (value - KTTimeValue(3)).ticks());
  EXPECT_EQ(kMin, (KTTimeValue(kMax) += KTTimeValue(1)).ticks());
  EXPECT_TRUE(KTTimeValue(-1) < KTTimeValue(0) && KTTimeValue(2) >= KTTimeValue(2));
}

TEST_F(KTTime, breaksDownAnyYear) {
  const struct {
    i64 seconds;
    std::vector<int> fields;
  } kCases[] = {{-1, {1969, 11, 31, 23, 59, 59, 3, 364}},
                {-310478400, {1960, 1, 29, 12, 0, 0, 1, 59}},
                {-2147483648, {1901, 11, 13, 20, 45, 52, 5, 346}},
                {2147483647, {2038, 0, 19, 3, 14, 7, 2, 18}},
                {2147483648, {2038, 0, 19, 3, 14, 8, 2, 18}},
                {4107542400, {2100, 1, 29, 0, 0, 0, 1, 59}},  // Every fourth year is a leap year.
                {i64{126230400} * 2000, {9970, 0, 1, 0, 0, 0, 1, 0}},
                {i64{126230400} * -2000, {-6030, 0, 1, 0, 0, 0, 0, 0}}};
  for (const auto& c : kCases) {
    const KTTimeValue value = KTTimeValue::fromSeconds(c.seconds);
    EXPECT_EQ(c.fields, fieldsOf(value.toUtcTime())) << c.seconds;
    EXPECT_EQ(c.seconds, KTTimeValue::fromBrokenDownTime(value.toLocalTime()).seconds());
    EXPECT_EQ(c.fields, fieldsOf(KTTimeSpan(static_cast<double>(c.seconds) + 0.75))) << c.seconds;
  }
  std::tm far{};
  for (const int year : {100'000, -100'000, INT_MAX, INT_MIN}) {
    far.tm_year = year;
    EXPECT_EQ("failed to convert from localtime", thrownBy([&] { KTTimeValue::fromBrokenDownTime(far); }));
  }
  EXPECT_EQ(1969, KTTimeValue(-1).toUtcTime().tm_year + 1900);
}

TEST_F(KTTime, spanWithoutACalendarFormGivesFixedFields) {
  const std::vector<int> kNone = {1899, 65535, 65535, 65535, 65535, 65535, 65535, 65535};
  for (const double seconds : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e18, -1e18}) {
    KTTimeSpan span(seconds);
    EXPECT_EQ(kNone, fieldsOf(span));
    EXPECT_TRUE(span.toText().empty());
    span.setField(KTTimeSpan::Field::kYear, 2000);
    EXPECT_EQ(1899, span.year());
    EXPECT_FALSE(span.formatSpan().empty());
  }
}

TEST_F(KTTime, printsTimes) {
  const KTTimeSpan span(784111777.5);
  const KTTimeValue value = KTTimeValue::fromSeconds(784111777);
  EXPECT_EQ("Sun Nov  6 08:49:37 1994", narrow(span.toText()));
  EXPECT_EQ("Sun Nov  6 08:49:37 1994", narrow(value.toText()));
  setZone("IST-5:30");
  EXPECT_EQ("06.11.94 14:19 \u20AC", narrow(span.toText(u"%d.%m.%y %H:%M \u20AC")));
  EXPECT_EQ("08:49", narrow(span.toText(u"%H:%M", true)));
  EXPECT_EQ("14:19 08:49", narrow(value.toText(u"%H:%M") + u" " + value.toText(u"%H:%M", true)));
  EXPECT_EQ("1960-02-29", narrow(KTTimeSpan(-310478400).toText(u"%Y-%m-%d")));
  EXPECT_EQ("<1970", narrow(KTTimeValue(-1).toText()));
  EXPECT_EQ("2106-02-06", narrow(KTTimeValue::fromSeconds(0xFFFFFFFF).toText(u"%Y-%m-%d", true)));
  EXPECT_EQ(">2038", narrow(KTTimeValue::fromSeconds(0x100000000).toText()));
  for (const std::size_t length : {511u, 512u}) {
    const std::u16string format(length, u'x');
    for (const auto& text : {span.toText(format.c_str()), value.toText(format.c_str())})
      EXPECT_EQ(length == 511 ? 511 : 0, text.length());
  }
}

TEST_F(KTTime, printsSpans) {
  const i64 seconds = 1234 * 86400 + 5 * 3600 + 6 * 60 + 7;
  const struct {
    const char16_t* format;
    const char *span, *value;
  } kCases[] = {{nullptr, "1234d:05h:06m:07s", "1234d:05h:06m:07s"},
                {u"%M%%%x%S%", "06%07", "06%07"},
                {u"[%m|%u|%n]", "[||]", "[089|089012|089012300]"}};
  for (const auto& c : kCases) {
    EXPECT_EQ(c.span, narrow(KTTimeSpan(static_cast<double>(seconds) + 0.9).formatSpan(c.format)));
    EXPECT_EQ(c.value, narrow(KTTimeValue(seconds * 10'000'000 + 890'123).formatSpan(c.format)));
  }
  EXPECT_EQ("0d:00h:-1m:-30s", narrow(KTTimeSpan(-90).formatSpan()));
}

TEST_F(KTTime, parsesEveryShape) {
  const auto parsed = [](const char* text) { return KTTimeSpan::parse(text, false).seconds(); };
  for (const char* text :
       {"Sun, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 -0500", ",   06 Nov 1994 08:49:37",
        "Sunday, 06-Nov-1994 08:49:37", "Sun, 6-Nov-1994 8:49:37", "Sun Nov  6 08:49:37 1994",
        "  Nov  6 08:49:37 1994    ", "1994-10-06T08:49:37.0"})  // Month 10 is November.
    EXPECT_EQ(784111777, parsed(text)) << text;
  EXPECT_EQ(1609459199, parsed("2020-11-31T23:59:59.0"));
  EXPECT_EQ(42, parsed("42 seconds"));
  EXPECT_EQ(2147483647, parsed("99999999999"));
  for (const char* text : {"Sun, 06 Nov 1994 08:49:3", "Sun, 6-Nov-1994 8:49:3", "Nov  6 08:49:37 1994   ",
                           "1994-10-06T08:49:37Z",  // Up to here each is one character too short.
                           "Sun, 06-Nov-94 08:49:37 GMT", "Sun, 06 nov 1994 08:49:37 GMT",
                           "Sun, ....................", "no date, no digits, nothing at all", ",", "", "-42"})
    EXPECT_EQ(0, parsed(text)) << text;
  for (const char* outOfRange : {"1969-11-31T23:59:59.0", "2021-00-01T00:00:00.0", "1994-12-06T08:49:37.0",
                                 "1994-10-00T08:49:37.0", "1994-10-32T08:49:37.0", "1994-10-06T24:49:37.0",
                                 "1994-10-06T08:60:37.0", "1994-10-06T08:49:60.0", "1994-10-06T08:49:-7.00"})
    EXPECT_EQ(0, parsed(outOfRange)) << outOfRange;
  EXPECT_EQ(0, parsed(nullptr));
  EXPECT_NEAR(KTTimeSpan::now().seconds() + 3600, KTTimeSpan::parse("3600", true).seconds(), 60);
  EXPECT_EQ(784111777, KTTimeSpan::parse("Sun Nov  6 08:49:37 1994", true).seconds());
}

TEST_F(KTTime, followsDaylightSaving) {
  const struct {
    const char* zone;
    i64 change;  // The first second of the new rule.
    const char *before, *after;
  } kCases[] = {{"EST5EDT,M3.2.0,M11.1.0", 1615705200, "14 01:59:59", "14 03:00:00"},
                {"EST5EDT,M3.2.0,M11.1.0", 1636264800, "07 01:59:59", "07 01:00:00"},
                {"LHST-10:30LHDT-11,M10.1.0,M4.1.0", 1617462000, "04 01:59:59", "04 01:30:00"},
                {"EST5EDT,M3.2.0,M11.1.0", 2909372400, "12 01:59:59", "12 03:00:00"}};  // 2062 as 2034
  for (const auto& c : kCases) {
    setZone(c.zone);
    for (const i64 second : {c.change - 1, c.change}) {
      const KTTimeValue value = KTTimeValue::fromSeconds(second);
      const KTTimeSpan span(static_cast<double>(second));
      EXPECT_EQ(second < c.change ? c.before : c.after, narrow(span.toText(u"%d %H:%M:%S"))) << c.zone;
      EXPECT_EQ(second, KTTimeValue::fromBrokenDownTime(value.toLocalTime()).seconds());
    }
  }
  setZone("EST5EDT,M3.2.0,M11.1.0");
  EXPECT_EQ(1625155200, KTTimeSpan::fromDate(2021, 6, 1, 12, 0, 0).seconds());
  EXPECT_EQ(1609520400, KTTimeSpan::fromDate(2021, 0, 1, 12, 0, 0).seconds());
  EXPECT_EQ(1625155200 - 100 * i64{31557600}, KTTimeSpan::fromDate(1921, 6, 1, 12, 0, 0).seconds());
  EXPECT_EQ(784129777, KTTimeSpan::parse("Sun, 06 Nov 1994 08:49:37 GMT", false).seconds());

  KTTimeSpan noon(1609520400.25);
  noon.setField(KTTimeSpan::Field::kMonth, 6);
  EXPECT_EQ(1625155200.25, noon.seconds());  // Still noon.
  noon.setField(KTTimeSpan::Field::kDay, 32);
  EXPECT_EQ(7, noon.month());
  noon.setField(KTTimeSpan::Field::kYear, 1970);
  EXPECT_EQ(1970, noon.year());

  setZone("AAA-5:30");
  EXPECT_EQ(-19800, KTTimeSpan::timezoneSeconds());
  setZone("EST5EDT,0/0,J365/25");  // Daylight saving all the year.
  EXPECT_EQ(14400, KTTimeSpan::timezoneSeconds());
}

TEST_F(KTTime, addsUnits) {
  KTTimeSpan span = KTTimeSpan::fromUnits(1, 2, 3, 4);
  EXPECT_EQ(93784, span.seconds());
  for (const u32 unit : {0u, 1u, 2u, 3u, 4u, 0xFFFFFFFFu}) span.addUnit(unit, -1);
  EXPECT_EQ(93784 - 86400 - 3600 - 60 - 1, span.seconds());
  span.addUnit(KTTimeSpan::kDays, std::numeric_limits<i32>::max());
  EXPECT_GT(span.seconds(), 1.8e14);
  const i64 before = monotonicMilliseconds();
  EXPECT_NEAR(static_cast<double>(before & 0x7FFFFFFF), monotonicMilliseconds32(), 10000);
  EXPECT_LE(before, monotonicMilliseconds());
}

}  // namespace
