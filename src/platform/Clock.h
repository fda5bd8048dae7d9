// The system's clocks.

#pragma once

#include "platform/Types.h"

namespace orv::platform {

// Returns the system time in ticks of 100 nanoseconds since 1970-01-01 00:00:00 UTC.
i64 systemTicks();

// Returns the milliseconds of a clock that never goes back and has a start of its own.
u64 steadyMilliseconds();

}  // namespace orv::platform
