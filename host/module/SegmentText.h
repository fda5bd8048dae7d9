// A table of segments for a person: one line each.

#pragma once

#include <fmt/format.h>

#include <string>

#include "host/text/TimeText.h"
#include "modules/streams/contract/IQVStreamAdaptor.h"

namespace orv::host {

inline std::string segmentHeading() {
  return fmt::format("{:>6}  {:>14}  {:>14}  {:>10}  {:<12}  {:<12}\n", "#", "first byte", "last byte",
                     "bytes", "from", "to");
}

inline std::string segmentLine(u64 number, const SegmentBounds& bounds) {
  return fmt::format("{:>6}  {:>14}  {:>14}  {:>10}  {}  {}\n", number, bounds.startPosition,
                     bounds.endPosition, bounds.endPosition - bounds.startPosition + 1,
                     timeText(bounds.startTime), timeText(bounds.endTime));
}

}  // namespace orv::host
