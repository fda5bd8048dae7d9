// The place of one tag, and a run of tags between two of them.

#pragma once

#include "platform/Types.h"

namespace orv::flv {

struct FrameRecord {
  i64 position = 0;  // First byte of the tag's header.
  u32 time = 0;
  i64 end = 0;  // Where the next tag's header starts.

  // A place at which no tag stands, such as the end of a file.
  static FrameRecord endMark(i64 position, u32 time) { return {position, time, position}; }
  bool isEndMark() const { return position == end; }
  bool operator==(const FrameRecord&) const = default;
};

// The half-open byte run and time span from `first` to `last`, which is the tag behind the run.
struct SegmentRange {
  FrameRecord first;
  FrameRecord last;

  bool operator==(const SegmentRange&) const = default;
  i64 span() const { return last.position - first.position; }
  bool holdsPosition(i64 position) const { return position >= first.position && position < last.position; }
  // A range in which all tags bear one time holds that time.
  bool holdsTime(u32 time) const { return time == first.time || (time > first.time && time < last.time); }
};

}  // namespace orv::flv
