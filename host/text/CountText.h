// Counts as people read them.

#pragma once

#include <string>

#include "platform/Types.h"

namespace orv::host {

// "1 tag", "2 tags", "3 flushes".
std::string countText(u64 count, const char* what, const char* plural = "s");

// A run of tags: "2 tags, 90 bytes of data, 00:00:00.000 to 00:00:00.040". Times are milliseconds.
std::string runText(u64 tags, u64 bytes, u32 firstTime, u32 lastTime);

}  // namespace orv::host
