#include "util/CalendarSteps.h"

#include <iterator>

namespace orv::util {

namespace {

constexpr i64 kStepSeconds = 126'230'400;
constexpr i64 kStepYears = 4;
constexpr i64 kStepWeekdays = 1461 % 7;
constexpr i64 kLastSecond = 2'147'483'647;
constexpr i64 kFirstYear = 70, kLastYear = 137;  // Whole years inside the range, from 1900.
constexpr i64 kMaxSteps = 500'000'000;           // Keeps the year within 32 bits.

// How many steps forward, or back when negative, bring `value` between `first` and `last`.
i64 stepsInto(i64 value, i64 first, i64 last, i64 step) {
  if (value < first) return (first - value + step - 1) / step;
  return value > last ? -((value - last + step - 1) / step) : 0;
}

}  // namespace

bool toBrokenDown(i64 seconds, orv::platform::Zone zone, std::tm* time) {
  if (seconds / kStepSeconds > kMaxSteps || seconds / kStepSeconds < -kMaxSteps) return false;
  const i64 steps = stepsInto(seconds, 0, kLastSecond, kStepSeconds);
  if (!orv::platform::breakDown(seconds + steps * kStepSeconds, zone, time)) return false;
  time->tm_year -= static_cast<int>(steps * kStepYears);
  time->tm_wday = static_cast<int>(((time->tm_wday - steps * kStepWeekdays) % 7 + 7) % 7);
  return true;
}

bool fromBrokenDown(std::tm time, i64* seconds) {
  const i64 steps = stepsInto(time.tm_year, kFirstYear, kLastYear, kStepYears);
  time.tm_year = static_cast<int>(time.tm_year + steps * kStepYears);
  i64 moved = 0;
  if (!orv::platform::localSeconds(time, &moved)) return false;
  *seconds = moved - steps * kStepSeconds;
  return true;
}

KTWideString timeText(const char16_t* format, const std::tm& time) {
  char16_t text[512];
  const std::size_t length = orv::platform::printTime(text, std::size(text), format ? format : u"%c", time);
  return {text, static_cast<i64>(length)};
}

}  // namespace orv::util
