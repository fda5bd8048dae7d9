// The system's calendar: seconds since 1970-01-01 00:00:00 UTC, broken-down time, and its text.

#pragma once

#include <cstddef>
#include <ctime>

#include "platform/Types.h"

namespace orv::platform {

enum class Zone : u8 { kLocal, kUtc };

// Breaks seconds down into the fields of a time. Returns false when the calendar doesn't reach that far.
bool breakDown(i64 seconds, Zone zone, std::tm* time);

// Converts a local time into seconds. Fields outside their ranges carry over, and a negative tm_isdst lets
// the calendar decide. Returns false when the calendar doesn't reach that far.
bool localSeconds(std::tm time, i64* seconds);

// Prints with strftime's conversions. Returns the units written, without the NUL; 0 when they don't fit.
std::size_t printTime(char16_t* out, std::size_t size, const char16_t* format, const std::tm& time);

}  // namespace orv::platform
