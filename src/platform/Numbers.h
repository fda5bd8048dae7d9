// Number conversions whose results the system fixes where C++ leaves them open.

#pragma once

#include <cstdlib>
#include <limits>

#include "platform/Types.h"

namespace orv::platform {

// Truncates towards zero. Returns the 64-bit minimum for a NaN and outside the 64-bit range, as x86-64 does.
inline i64 truncateToInt64(double value) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (!(value >= -kLimit && value < kLimit)) return std::numeric_limits<i64>::min();
  return static_cast<i64>(value);
}

// Returns the decimal number at the start of `text`, clamped to 32 bits; 0 if there is none.
inline i32 parseInt32(const char* text) {
  const long long value = std::strtoll(text, nullptr, 10);
  if (value > std::numeric_limits<i32>::max()) return std::numeric_limits<i32>::max();
  if (value < std::numeric_limits<i32>::min()) return std::numeric_limits<i32>::min();
  return static_cast<i32>(value);
}

}  // namespace orv::platform
