// Broken-down time for any year.
//
// The calendar is trusted for seconds from 0 to 2,147,483,647 only. A time outside is brought inside in steps
// of four years of 1,461 days, and the steps are put back into the year afterwards: every fourth year is a
// leap year here, 1900 and 2100 included, and the rules of daylight saving are those of the year it was moved
// to.

#pragma once

#include "platform/Calendar.h"
#include "util/KTWideString.h"

namespace orv::util {

// Returns false when the year doesn't fit its field.
bool toBrokenDown(i64 seconds, orv::platform::Zone zone, std::tm* time);

// Converts a local time to seconds. Returns false, with `*seconds` untouched, if the calendar refuses it.
bool fromBrokenDown(std::tm time, i64* seconds);

// Formats by strftime's conversions; a null format means "%c". Returns an empty text instead of one with more
// than 511 characters.
KTWideString timeText(const char16_t* format, const std::tm& time);

}  // namespace orv::util
