#include "modules/streams/flv/SegmentSeek.h"

#include <algorithm>

#include "platform/Numbers.h"
#include "util/KTThrowable.h"

namespace orv::flv {
namespace {

// An estimate of where in the range the time lies, always inside the range.
i64 interpolatePosition(u32 time, const SegmentRange& range) {
  KT_ASSERT(range.span() > 0 && time >= range.first.time && time < range.last.time);
  if (range.last.time == range.first.time) return range.first.position;
  const double ratio =
      static_cast<double>(time - range.first.time) / static_cast<double>(range.last.time - range.first.time);
  const i64 offset = platform::truncateToInt64(ratio * static_cast<double>(range.span()));
  if (offset >= range.span()) return range.last.position - 1;
  return range.first.position + std::max<i64>(offset, 0);
}

// False where times run backwards across the candidate's ends.
bool rangeContains(const SegmentRange& range, const SegmentRange& candidate) {
  return candidate.first.time <= candidate.last.time && range.first.position <= candidate.first.position &&
         candidate.last.position <= range.last.position && range.first.time <= candidate.first.time &&
         candidate.last.time <= range.last.time &&
         (range.first.position != candidate.first.position || range.first.time == candidate.first.time) &&
         (range.last.position != candidate.last.position || range.last.time == candidate.last.time);
}

}  // namespace

SegmentSeek::SegmentSeek(FrameFinder& finder, SegmentIndex& index, const SegmentRange& range,
                         SegmentIndex::Hint hint)
    : finder_(finder), index_(index), range_(range), hint_(hint) {
  anchorAtOldEnd();
}

// Where the file has grown behind a segment that ended at its old end, the range begins at a mark and not at
// a tag. The mark gets the extent of the tag that stands there now. Its time, one above the old duration,
// goes down to that tag's if need be, so that a tag of the very same millisecond still lies in the range; it
// never goes up, so that the time spans on both sides stay joined.
void SegmentSeek::anchorAtOldEnd() {
  if (!range_.first.isEndMark() || range_.span() <= 0) return;
  oldEnd_ = range_.first.position;
  const PassThroughScope stay = finder_.keepBlock();
  FrameRecord frame;
  if (!finder_.readFrameHeader(oldEnd_, &frame)) return;
  range_.first.end = frame.end;
  range_.first.time = std::min(range_.first.time, frame.time);
}

// An interpolation search with the range as its bracket. The span shrinks with every pass, which ends the
// loop. Times that don't grow with the bytes, such as those of two sessions in one file, lead guess after
// guess to the range's edge. After four in a row that left more than half of the span the next pass takes the
// middle, and from then on so does the pass behind each such guess: 40 passes in 64 GiB at most. Where rates
// merely change, guesses home in from one side, and a fifth is hardly ever needed.
bool SegmentSeek::seekSegmentByTime(u32 time, SegmentRange* found) {
  int poorGuesses = 0;
  int patience = 4;
  for (i64 span = range_.span();; span = range_.span()) {
    if (range_.first.time > range_.last.time) return refuse();
    KT_ASSERT(span > 0);
    if (span <= 0) return false;

    const bool bisects = poorGuesses == patience;
    const i64 position = bisects ? range_.first.position + span / 2 : interpolatePosition(time, range_);
    SegmentRange candidate = range_;
    if (!buildSegment(position, &candidate)) return false;
    if (!rangeContains(range_, candidate)) return refuse();
    if (candidate.holdsTime(time)) {
      *found = candidate;
      return true;
    }
    if (time < candidate.first.time) {
      range_.last = candidate.first;
    } else {
      range_.first = candidate.last;
      ++hint_;  // Behind the candidate.
    }
    KT_ASSERT(range_.span() < span);
    if (range_.span() >= span) return false;
    if (bisects) patience = 1;
    poorGuesses = !bisects && range_.span() > span / 2 ? poorGuesses + 1 : 0;
  }
}

bool SegmentSeek::seekSegmentByPosition(i64 position, SegmentRange* found) {
  *found = range_;
  return buildSegment(position, found);
}

// Turns the range into the segment that holds `position`, and enters that into the index.
bool SegmentSeek::buildSegment(i64 position, SegmentRange* segment) {
  FrameRecord frame;
  if (!finder_.findFrameAtOrBefore(position, &frame, *segment)) return false;

  const i64 block = (frame.end - 1) / segmentBlockSize * segmentBlockSize;
  if (frame.position <= block) {
    segment->first = frame;
  } else if (block > segment->first.position) {
    FrameRecord opener;
    if (!finder_.findFrameAtOrBefore(block, &opener, *segment)) return false;
    KT_ASSERT(opener.position >= segment->first.position);
    segment->first = opener;
  } else if (block != 0 && block < segment->first.position && !mayBeginInBlock(segment->first)) {
    return refuse();
  }

  if (block < segment->last.position - segmentBlockSize) {
    const PassThroughScope stay = finder_.keepBlock();
    FrameRecord next;
    if (!finder_.findFrameAtOrBefore(block + segmentBlockSize, &next, *segment)) return false;
    KT_ASSERT(next.position < segment->last.position);
    segment->last = next;
  }
  return index_.insertSegment(*segment, &hint_);
}

// A frame that the index knows holds the start of a block, so that what lies behind it begins in the next
// one. Where it doesn't, bytes without a tag lie between the two. Only two places may stand inside a block:
// the first tag of the file, and the end that the file had before it grew.
bool SegmentSeek::mayBeginInBlock(const FrameRecord& first) const {
  return first.position == finder_.limits().firstTag || first.position == oldEnd_;
}

bool SegmentSeek::refuse(const char* file, int line) {
  finder_.reports().reportBadData(file, line);
  return false;
}

}  // namespace orv::flv
