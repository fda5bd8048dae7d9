// Times as people write them. A time is a u32 of milliseconds.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Types.h"

namespace orv::host {

// Reads "[HH:]MM:SS[.mmm]" or "S[.mmm][s|ms]": "1:02:03.250", "90:00", "12.5", "500ms". What is finer than a
// millisecond is cut off. Behind a colon a part is below 60. None for any other text and for times of 2^32 ms
// and above.
std::optional<u32> parseTime(std::string_view text);

// "HH:MM:SS.mmm"
std::string timeText(u32 time);

}  // namespace orv::host
