// The fast seek: finds the segment that holds a time or a place in a file that has no index.
//
// The file's bytes are cut, for this purpose only, into fixed blocks. A segment runs from the frame that
// holds one block start to the frame that holds the next, which is no longer part of it. Each step of a seek
// finds one segment, which the index keeps.

#pragma once

#include "modules/streams/flv/FrameFinder.h"
#include "modules/streams/flv/SegmentIndex.h"

namespace orv::flv {

inline constexpr i64 segmentBlockSize = 0x40000;

// One look into a range that a look-up in the index has left open. Borrows all of it.
class SegmentSeek {
 public:
  SegmentSeek(FrameFinder& finder, SegmentIndex& index, const SegmentRange& range, SegmentIndex::Hint hint);

  // False if no segment is found, or if damage stands in the way, which is reported.
  bool seekSegmentByTime(u32 time, SegmentRange* found);
  bool seekSegmentByPosition(i64 position, SegmentRange* found);

 private:
  void anchorAtOldEnd();
  bool buildSegment(i64 position, SegmentRange* segment);
  bool mayBeginInBlock(const FrameRecord& first) const;
  bool refuse(const char* file = __builtin_FILE(), int line = __builtin_LINE());

  FrameFinder& finder_;
  SegmentIndex& index_;
  SegmentRange range_;       // What is still in question.
  SegmentIndex::Hint hint_;  // Where a segment in it belongs.
  i64 oldEnd_ = -1;          // The end that the file had before it grew, if the range begins there.
};

}  // namespace orv::flv
