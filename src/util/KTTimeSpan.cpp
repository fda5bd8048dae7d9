#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

#include "platform/Clock.h"
#include "platform/Numbers.h"
#include "util/CalendarSteps.h"
#include "util/DateParser.h"
#include "util/KTTime.h"
#include "util/SpanFormat.h"

using orv::platform::Zone;

namespace {

constexpr i64 kMinute = 60, kHour = 3600, kDay = 86400;
constexpr double kTicksPerSecond = 1e7;

KTTimeSpan spanOfLocal(const std::tm& time) {
  i64 seconds = 0;
  orv::util::fromBrokenDown(time, &seconds);
  return KTTimeSpan(static_cast<double>(seconds));
}

int std::tm::*memberOf(KTTimeSpan::Field field) {
  static constexpr int std::tm::*kMembers[] = {&std::tm::tm_year, &std::tm::tm_mon, &std::tm::tm_mday,
                                               &std::tm::tm_hour, &std::tm::tm_min, &std::tm::tm_sec};
  return kMembers[static_cast<std::size_t>(field)];
}

// Of a date's year; far below any that the calendar knows when it doesn't fit 32 bits.
int yearsFrom1900(i32 year) {
  return static_cast<int>(std::max<i64>(i64{year} - 1900, std::numeric_limits<int>::min()));
}

}  // namespace

KTTimeSpan KTTimeSpan::fromUnits(i32 days, i32 hours, i32 minutes, i32 seconds) {
  return KTTimeSpan(static_cast<double>(days * kDay + hours * kHour + minutes * kMinute + seconds));
}

KTTimeSpan KTTimeSpan::fromDate(i32 year, i32 month, i32 day, i32 hour, i32 minute, i32 second) {
  std::tm time{};
  time.tm_year = yearsFrom1900(year);
  time.tm_mon = month;
  time.tm_mday = day;
  time.tm_hour = hour;
  time.tm_min = minute;
  time.tm_sec = second;
  time.tm_isdst = -1;
  return spanOfLocal(time);
}

KTTimeSpan KTTimeSpan::now() {
  return KTTimeSpan(static_cast<double>(orv::platform::systemTicks()) / kTicksPerSecond);
}

KTTimeSpan KTTimeSpan::parse(const char* text, bool relative) {
  if (!text) return {};
  if (orv::util::isBareNumber(text)) {
    const double number = orv::platform::parseInt32(text);
    return KTTimeSpan(relative ? now().seconds() + number : number);
  }
  std::tm time;
  return orv::util::parseDate(text, &time) ? spanOfLocal(time) : KTTimeSpan();
}

i32 KTTimeSpan::timezoneSeconds() {
  std::tm time{};
  now().breakDown(false, &time);
  return static_cast<i32>(-time.tm_gmtoff);
}

void KTTimeSpan::addUnit(u32 unit, i32 count) {
  static constexpr i64 kUnits[] = {kDay, kHour, kMinute, 1};
  if (unit < std::size(kUnits)) seconds_ += static_cast<double>(kUnits[unit] * count);
}

bool KTTimeSpan::breakDown(bool utc, std::tm* time) const {
  return orv::util::toBrokenDown(orv::platform::truncateToInt64(std::floor(seconds_)),
                                 utc ? Zone::kUtc : Zone::kLocal, time);
}

u16 KTTimeSpan::field(int std::tm::*member) const {
  std::tm time{};
  return breakDown(false, &time) ? static_cast<u16>(time.*member) : kNoField;
}

i32 KTTimeSpan::year() const {
  std::tm time{};
  return breakDown(false, &time) ? time.tm_year + 1900 : kNoYear;
}

u16 KTTimeSpan::month() const {
  return field(&std::tm::tm_mon);
}

u16 KTTimeSpan::day() const {
  return field(&std::tm::tm_mday);
}

u16 KTTimeSpan::hour() const {
  return field(&std::tm::tm_hour);
}

u16 KTTimeSpan::minute() const {
  return field(&std::tm::tm_min);
}

u16 KTTimeSpan::second() const {
  return field(&std::tm::tm_sec);
}

u16 KTTimeSpan::dayOfWeek() const {
  return field(&std::tm::tm_wday);
}

u16 KTTimeSpan::dayOfYear() const {
  return field(&std::tm::tm_yday);
}

void KTTimeSpan::setField(Field field, i32 value) {
  std::tm time{};
  i64 seconds = 0;
  if (!breakDown(false, &time)) return;
  time.*memberOf(field) = field == Field::kYear ? yearsFrom1900(value) : value;
  time.tm_isdst = -1;
  if (orv::util::fromBrokenDown(time, &seconds))
    seconds_ = static_cast<double>(seconds) + (seconds_ - std::floor(seconds_));
}

KTWideString KTTimeSpan::toText(const char16_t* format, bool utc) const {
  std::tm time{};
  if (!breakDown(utc, &time)) return {};
  return orv::util::timeText(format, time);
}

KTWideString KTTimeSpan::formatSpan(const char16_t* format) const {
  const i64 total = orv::platform::truncateToInt64(seconds_);
  return orv::util::formatSpan(format, [total](char16_t letter, KTWideString& text) {
    const auto add = [&text](const char16_t* pattern, i64 value) {
      text += KTWideString().format(pattern, static_cast<i32>(value));
    };
    if (letter == u'D') add(u"%ld", total / kDay);
    if (letter == u'H') add(u"%02hd", total % kDay / kHour);
    if (letter == u'M') add(u"%02hd", total % kHour / kMinute);
    if (letter == u'S') add(u"%02hd", total % kMinute);
  });
}

i64 monotonicMilliseconds() {
  return static_cast<i64>(orv::platform::steadyMilliseconds());
}

u32 monotonicMilliseconds32() {
  return static_cast<u32>(orv::platform::steadyMilliseconds() & 0x7FFFFFFF);
}
