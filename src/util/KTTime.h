// The two time classes: seconds in a double, and an exact count with special values. Both count from
// 1970-01-01 00:00:00 UTC when they stand for a point in time. Months count from 0, January, wherever a
// number stands for one. Local times follow the environment variable TZ, which no thread may change
// meanwhile. Outside 1970 to 2038 every fourth year is a leap year, and daylight saving is that of a year
// inside.

#pragma once

#include <ctime>

#include "util/KTThrowable.h"

class KTTimeSpan {
 public:
  enum Unit : u32 { kDays = 0, kHours = 1, kMinutes = 2, kSeconds = 3 };
  enum class Field : u8 { kYear, kMonth, kDay, kHour, kMinute, kSecond };
  // What a field of a time gives that has no broken-down form.
  static constexpr u16 kNoField = 65535;
  static constexpr i32 kNoYear = 1899;

  KTTimeSpan() = default;
  explicit KTTimeSpan(double seconds) : seconds_(seconds) {}
  static KTTimeSpan fromUnits(i32 days, i32 hours, i32 minutes, i32 seconds);
  // Converts a date in local time; returns 0 if the calendar refuses it.
  static KTTimeSpan fromDate(i32 year, i32 month, i32 day, i32 hour, i32 minute, i32 second);
  static KTTimeSpan now();

  // Reads a date text in local time, in one of these shapes, or a bare number of seconds; a null text and
  // every failure give 0. Nothing behind the last field is looked at, a zone included.
  //   "Sun, 06 Nov 1994 08:49:37"  "Sunday, 06-Nov-1994 08:49:37"
  //   "Sun Nov  6 08:49:37 1994"   "1994-10-06T08:49:37.0"  (month 10 is November)
  // Years run from 1970 to 2020. A text is too short below 20 and 18 characters behind the comma, and below
  // 24 and 21 in the lower row. `relative` adds a bare number to the current time.
  static KTTimeSpan parse(const char* text, bool relative);

  // Returns the seconds by which local time lies behind UTC at this moment, daylight saving included.
  static i32 timezoneSeconds();

  double seconds() const { return seconds_; }
  // Adds `count` units; nothing for an unknown unit.
  void addUnit(u32 unit, i32 count);

  // Fields of the local time.
  i32 year() const;
  u16 month() const;
  u16 day() const;
  u16 hour() const;
  u16 minute() const;
  u16 second() const;
  u16 dayOfWeek() const;  // From 0, Sunday.
  u16 dayOfYear() const;  // From 0.
  // Rewrites one field of the local time. A value outside the field's range carries over; what the calendar
  // refuses changes nothing. The fraction of the second stays.
  void setField(Field field, i32 value);

  // Formats by strftime's conversions, "%c" if `format` is null. Returns an empty text on failure and above
  // 511 characters.
  KTWideString toText(const char16_t* format = nullptr, bool utc = false) const;
  // "%D" days, and "%H", "%M", "%S" what is left below a day, an hour, a minute; "%%" is one "%". Another
  // letter prints nothing. A null format means "%Dd:%Hh:%Mm:%Ss".
  KTWideString formatSpan(const char16_t* format = nullptr) const;

 private:
  bool breakDown(bool utc, std::tm* time) const;
  u16 field(int std::tm::*member) const;

  double seconds_ = 0;
};

namespace orv::util {

// A time conversion failed.
class ORV_EXPORT KTTimeValueError : public KTException {
 public:
  using KTException::KTException;
  KTTimeValueError() = default;
  KTTimeValueError(const KTTimeValueError&) = default;
  KTTimeValueError& operator=(const KTTimeValueError&) = default;
  ~KTTimeValueError() override;
};

}  // namespace orv::util

// A count of 100-nanosecond ticks. The counts at the ends of the range are no times: the infinities, "no
// time", and 61-bit user values. Arithmetic is plain, on the count, and wraps.
class KTTimeValue {
 public:
  constexpr KTTimeValue() = default;
  constexpr explicit KTTimeValue(i64 ticks) : ticks_(ticks) {}
  static KTTimeValue fromMicroseconds(i64 count) { return scaled(count, 10); }
  static KTTimeValue fromMilliseconds(i64 count) { return scaled(count, 10'000); }
  static KTTimeValue fromSeconds(i64 count) { return scaled(count, 10'000'000); }
  static KTTimeValue negativeInfinity();
  static KTTimeValue positiveInfinity();
  static KTTimeValue notATime();
  // Keeps the low 61 bits.
  static KTTimeValue fromUserValue(i64 number);
  // Converts a local time. Throws KTTimeValueError if it doesn't fit.
  static KTTimeValue fromBrokenDownTime(const std::tm& time);

  i64 ticks() const { return ticks_; }
  i64 microseconds() const { return ticks_ / 10; }
  i64 milliseconds() const { return microseconds() / 1000; }
  i64 seconds() const { return milliseconds() / 1000; }

  bool isNegativeInfinity() const { return *this == negativeInfinity(); }
  bool isPositiveInfinity() const { return *this == positiveInfinity(); }
  bool isNotATime() const { return *this == notATime(); }
  bool isUserValue() const;
  bool isInvalid() const;
  // Returns true if none of the above does.
  bool isTime() const;

  // Throws KTTimeValueError for anything else than a user value.
  i64 userValue() const;

  // Throw KTTimeValueError for what is no time.
  std::tm toLocalTime() const;
  std::tm toUtcTime() const;

  // Formats as KTTimeSpan's does, for times from 1970 up to 2 to the 32nd seconds; returns "<1970" or ">2038"
  // outside, and for what is no time "-infinity", "+infinity", "notATime", "userSpecial(number)" or
  // "invalid".
  KTWideString toText(const char16_t* format = nullptr, bool utc = false) const;
  // As KTTimeSpan's, and the fraction of the second as "%m" milliseconds, "%u" microseconds, "%n"
  // nanoseconds.
  KTWideString formatSpan(const char16_t* format = nullptr) const;

  KTTimeValue& operator+=(KTTimeValue other) { return *this = *this + other; }
  friend KTTimeValue operator+(KTTimeValue a, KTTimeValue b) { return wrapped(bits(a) + bits(b)); }
  friend KTTimeValue operator-(KTTimeValue a, KTTimeValue b) { return wrapped(bits(a) - bits(b)); }
  friend auto operator<=>(const KTTimeValue&, const KTTimeValue&) = default;

 private:
  static u64 bits(KTTimeValue value) { return static_cast<u64>(value.ticks_); }
  static KTTimeValue wrapped(u64 ticks) { return KTTimeValue(static_cast<i64>(ticks)); }
  static KTTimeValue scaled(i64 count, u64 ticks) { return wrapped(static_cast<u64>(count) * ticks); }
  i32 highWord() const { return static_cast<i32>(ticks_ >> 32); }
  bool breakDown(bool utc, std::tm* time) const;
  KTWideString specialText() const;

  i64 ticks_ = 0;
};

// Milliseconds of a clock that never goes back; the 32-bit form keeps the low 31 bits.
i64 monotonicMilliseconds();
u32 monotonicMilliseconds32();
