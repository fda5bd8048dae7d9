#include <limits>

#include "util/CalendarSteps.h"
#include "util/KTTime.h"
#include "util/SpanFormat.h"

using orv::platform::Zone;
using orv::util::KTTimeValueError;

namespace {

constexpr i64 kSecond = 10'000'000;
constexpr i64 kMinute = 60 * kSecond, kHour = 60 * kMinute, kDay = 24 * kHour;
constexpr i64 kTextLimit = i64{1} << 32;  // Seconds.

// User values have the high words from the first up to, not including, the second.
constexpr i32 kFirstUserWord = -0x60000000, kFirstTimeWord = -0x40000000;
constexpr i32 kUserTagBits = 3;

i64 floorSeconds(i64 ticks) {
  return ticks / kSecond - (ticks % kSecond < 0 ? 1 : 0);
}

}  // namespace

namespace orv::util {

KTTimeValueError::~KTTimeValueError() = default;

}  // namespace orv::util

KTTimeValue KTTimeValue::negativeInfinity() {
  return KTTimeValue(std::numeric_limits<i64>::min());
}

KTTimeValue KTTimeValue::positiveInfinity() {
  return KTTimeValue(std::numeric_limits<i64>::max());
}

KTTimeValue KTTimeValue::notATime() {
  return KTTimeValue(std::numeric_limits<i64>::min() + 1);
}

KTTimeValue KTTimeValue::fromUserValue(i64 number) {
  constexpr u64 kTag = u64{static_cast<u32>(kFirstUserWord)} << 32;
  return wrapped(kTag | (static_cast<u64>(number) << kUserTagBits >> kUserTagBits));
}

KTTimeValue KTTimeValue::fromBrokenDownTime(const std::tm& time) {
  i64 seconds = 0;
  i64 ticks = 0;
  if (!orv::util::fromBrokenDown(time, &seconds) || __builtin_mul_overflow(seconds, kSecond, &ticks) ||
      !KTTimeValue(ticks).isTime())
    throw KTTimeValueError(u"failed to convert from localtime");
  return KTTimeValue(ticks);
}

bool KTTimeValue::isUserValue() const {
  return highWord() >= kFirstUserWord && highWord() < kFirstTimeWord;
}

bool KTTimeValue::isInvalid() const {
  return highWord() < kFirstUserWord && !isNegativeInfinity() && !isNotATime();
}

bool KTTimeValue::isTime() const {
  return highWord() >= kFirstTimeWord && !isPositiveInfinity();
}

i64 KTTimeValue::userValue() const {
  if (!isUserValue()) throw KTTimeValueError(u"not user value");
  return static_cast<i64>(bits(*this) << kUserTagBits) >> kUserTagBits;
}

bool KTTimeValue::breakDown(bool utc, std::tm* time) const {
  *time = {};
  return isTime() && orv::util::toBrokenDown(floorSeconds(ticks_), utc ? Zone::kUtc : Zone::kLocal, time);
}

std::tm KTTimeValue::toLocalTime() const {
  std::tm time;
  if (!breakDown(false, &time)) throw KTTimeValueError(u"failed to convert to localtime");
  return time;
}

std::tm KTTimeValue::toUtcTime() const {
  std::tm time;
  if (!breakDown(true, &time)) throw KTTimeValueError(u"failed to convert to gmtime");
  return time;
}

KTWideString KTTimeValue::specialText() const {
  if (isNegativeInfinity()) return u"-infinity";
  if (isPositiveInfinity()) return u"+infinity";
  if (isNotATime()) return u"notATime";
  if (isUserValue()) return u"userSpecial(" + KTWideString::fromNumber(userValue()) + u")";
  return u"invalid";
}

KTWideString KTTimeValue::toText(const char16_t* format, bool utc) const {
  if (!isTime()) return specialText();
  if (ticks_ < 0) return u"<1970";
  if (seconds() >= kTextLimit) return u">2038";
  return orv::util::timeText(format, utc ? toUtcTime() : toLocalTime());
}

KTWideString KTTimeValue::formatSpan(const char16_t* format) const {
  if (!isTime()) return specialText();
  return orv::util::formatSpan(format, [this](char16_t letter, KTWideString& text) {
    const auto add = [&text](const char16_t* pattern, i64 value) {
      text += KTWideString().format(pattern, value);
    };
    const i64 fraction = ticks_ % kSecond;
    if (letter == u'D') add(u"%lld", ticks_ / kDay);
    if (letter == u'H') add(u"%02lld", ticks_ % kDay / kHour);
    if (letter == u'M') add(u"%02lld", ticks_ % kHour / kMinute);
    if (letter == u'S') add(u"%02lld", ticks_ % kMinute / kSecond);
    if (letter == u'm') add(u"%03lld", fraction / 10'000);
    if (letter == u'u') add(u"%06lld", fraction / 10);
    if (letter == u'n') add(u"%09lld", fraction * 100);
  });
}
