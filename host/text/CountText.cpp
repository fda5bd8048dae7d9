#include "host/text/CountText.h"

#include <fmt/format.h>

#include "host/text/TimeText.h"

namespace orv::host {

std::string countText(u64 count, const char* what, const char* plural) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : plural);
}

std::string runText(u64 tags, u64 bytes, u32 firstTime, u32 lastTime) {
  return fmt::format("{}, {} of data, {} to {}", countText(tags, "tag"), countText(bytes, "byte"),
                     timeText(firstTime), timeText(lastTime));
}

}  // namespace orv::host
