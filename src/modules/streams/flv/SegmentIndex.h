// The segments of a file that are known so far: an ordered set that knows no file.

#pragma once

#include <set>

#include "modules/streams/flv/FrameRecord.h"

namespace orv::flv {

// Segments in file order, without overlap. Where two touch, the earlier one's `last` is the later one's
// `first`, or stays the mark of the old end if the file has grown behind it: what the host was told doesn't
// change. Between others lies what no search has visited yet.
//
// Look-ups take O(log n). Only where damage made the times of a file run backwards, a look-up by time walks
// from the front: its answer is the first segment that holds the time, if none in front of it begins later.
class SegmentIndex {
  // Orders segments by their place, and finds the first that doesn't lie before a place or a time.
  struct Before {
    using is_transparent = void;
    struct Position {
      i64 value;
    };
    struct Time {
      u32 value;
    };
    bool operator()(const SegmentRange& a, const SegmentRange& b) const {
      return a.first.position < b.first.position;
    }
    bool operator()(const SegmentRange& segment, Position position) const {
      return segment.last.position <= position.value;
    }
    bool operator()(const SegmentRange& segment, Time time) const {
      return segment.first.time < time.value && segment.last.time <= time.value;
    }
  };
  using Segments = std::set<SegmentRange, Before>;

 public:
  using Hint = Segments::const_iterator;  // The segment before which a new one belongs.

  bool empty() const { return segments_.empty(); }
  std::size_t size() const { return segments_.size(); }
  const SegmentRange& back() const { return *segments_.rbegin(); }
  void clear();

  // True if a segment holds what is asked for; `*range` is that segment then. Otherwise `*range`, which comes
  // in as the whole file, becomes the tightest range around it that is known, and `*hint` the place of a
  // segment in it.
  bool searchIndexByTime(u32 time, SegmentRange* range, Hint* hint) const;
  bool searchIndexByPosition(i64 position, SegmentRange* range, Hint* hint) const;
  // Enters a segment before `*hint`, which becomes the new one. False, with nothing changed, if it is empty.
  bool insertSegment(const SegmentRange& segment, Hint* hint);
  // Enters a segment behind all others. False if it is empty.
  bool append(const SegmentRange& segment);
  // Joins the index to tags that come behind it: what begins at `start` or behind it is dropped, and what
  // reaches that far ends there.
  void endAt(const FrameRecord& start);

 private:
  bool narrow(Hint found, bool holds, SegmentRange* range, Hint* hint) const;
  bool descendsBefore(Hint segment) const;
  void dropLast();

  Segments segments_;
  std::size_t descents_ = 0;  // Neighbours of which the later one has an earlier time.
};

}  // namespace orv::flv
