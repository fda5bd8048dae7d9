#include "modules/streams/flv/SegmentIndex.h"

#include <algorithm>

namespace orv::flv {

void SegmentIndex::clear() {
  segments_.clear();
  descents_ = 0;
}

bool SegmentIndex::searchIndexByTime(u32 time, SegmentRange* range, Hint* hint) const {
  const Before::Time key{time};
  const Hint found = descents_ == 0 ? segments_.lower_bound(key)
                                    : std::find_if(segments_.begin(), segments_.end(),
                                                   [&](auto& segment) { return !Before()(segment, key); });
  return narrow(found, found != segments_.end() && found->holdsTime(time), range, hint);
}

bool SegmentIndex::searchIndexByPosition(i64 position, SegmentRange* range, Hint* hint) const {
  const Hint found = segments_.lower_bound(Before::Position{position});
  return narrow(found, found != segments_.end() && found->holdsPosition(position), range, hint);
}

// `found` is the first segment that doesn't lie before what is asked for.
bool SegmentIndex::narrow(Hint found, bool holds, SegmentRange* range, Hint* hint) const {
  *hint = found;
  if (holds) {
    *range = *found;
    return true;
  }
  if (found != segments_.begin()) range->first = std::prev(found)->last;
  if (found != segments_.end()) range->last = found->first;
  return false;
}

bool SegmentIndex::insertSegment(const SegmentRange& segment, Hint* hint) {
  if (segment.span() <= 0) return false;
  descents_ -= descendsBefore(*hint);
  *hint = segments_.insert(*hint, segment);
  descents_ += descendsBefore(*hint);
  descents_ += descendsBefore(std::next(*hint));
  return true;
}

bool SegmentIndex::append(const SegmentRange& segment) {
  Hint end = segments_.end();
  return insertSegment(segment, &end);
}

void SegmentIndex::endAt(const FrameRecord& start) {
  while (!empty() && back().first.position >= start.position) dropLast();
  if (empty() || back().last.position < start.position) return;
  const SegmentRange joined{back().first, start};
  dropLast();
  append(joined);
}

bool SegmentIndex::descendsBefore(Hint segment) const {
  if (segment == segments_.begin() || segment == segments_.end()) return false;
  const SegmentRange& before = *std::prev(segment);
  return segment->first.time < before.first.time || segment->last.time < before.last.time;
}

void SegmentIndex::dropLast() {
  const Hint last = std::prev(segments_.end());
  descents_ -= descendsBefore(last);
  segments_.erase(last);
}

}  // namespace orv::flv
