// The lazy index of segments, and the fast seek that finds a time in a file that has no index.
//
// The file's bytes are cut, for this purpose only, into fixed blocks. A segment runs from the frame that
// holds one block start to the frame that holds the next, which is no longer part of it. The index grows by
// one segment a search step and stays with the stream.

#include <algorithm>

#include "modules/streams/flv/KTFLVData.h"
#include "platform/Numbers.h"

namespace orv::flv {
namespace {

constexpr i64 segmentBlockSize = 262144;

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

bool KTFLVData::findSegmentByTime(u32 time, SegmentRange* range) {
  if (time < firstFrame.time || time >= lastFrame.time) return false;
  IndexIterator hint;
  if (searchIndexByTime(time, range, &hint)) return true;
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return false;
  const PassThroughScope stay(fileBuffer);
  anchorAtOldEnd(file.fd(), range);
  return seekSegmentByTime(time, range, file.fd(), hint);
}

bool KTFLVData::findSegmentByIndex(i64 index, SegmentRange* range) {
  if (index >= dataEnd) return false;
  index = std::max(index, firstFrame.position);
  IndexIterator hint;
  if (searchIndexByPosition(index, range, &hint)) return true;
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return false;
  anchorAtOldEnd(file.fd(), range);
  return buildSegment(index, range, file.fd(), hint);
}

// A failed look-up leaves the tightest range that the index knows, and the place where a new segment will go.
bool KTFLVData::searchIndexByTime(u32 time, SegmentRange* range, IndexIterator* hint) {
  *range = wholeFile();
  for (auto record = segmentIndex.begin(); record != segmentIndex.end(); ++record) {
    if (record->holdsTime(time)) {
      *range = *record;
      return true;
    }
    if (time < record->first.time) {
      range->last = record->first;
      *hint = record;
      return false;
    }
    range->first = record->last;
  }
  *hint = segmentIndex.end();
  return false;
}

bool KTFLVData::searchIndexByPosition(i64 position, SegmentRange* range, IndexIterator* hint) {
  *range = wholeFile();
  for (auto record = segmentIndex.begin(); record != segmentIndex.end(); ++record) {
    if (record->holdsPosition(position)) {
      *range = *record;
      return true;
    }
    if (position < record->first.position) {
      range->last = record->first;
      *hint = record;
      return false;
    }
    range->first = record->last;
  }
  *hint = segmentIndex.end();
  return false;
}

// Where the file has grown behind a segment that ended at its old end, the range begins at a mark and not at
// a tag. The mark gets the extent of the tag that stands there now. Its time, one above the old duration,
// goes down to that tag's if need be, so that a tag of the very same millisecond still lies in the range; it
// never goes up, so that the time spans on both sides stay joined.
void KTFLVData::anchorAtOldEnd(int fd, SegmentRange* range) {
  if (!range->first.isEndMark() || range->span() <= 0) return;
  const PassThroughScope stay(fileBuffer);
  BufferSource source(fileBuffer, fd);
  FrameRecord frame;
  if (!readFrameHeader(source, range->first.position, &frame)) return;
  range->first.end = frame.end;
  range->first.time = std::min(range->first.time, frame.time);
}

// An interpolation search with the range as its bracket. The span shrinks with every pass, which ends the
// loop.
bool KTFLVData::seekSegmentByTime(u32 time, SegmentRange* range, int fd, IndexIterator hint) {
  for (i64 span = range->span();; span = range->span()) {
    if (range->first.time > range->last.time) {
      reportBadData();
      return false;
    }
    KT_ASSERT(span > 0);
    if (span <= 0) return false;

    SegmentRange candidate = *range;
    if (!buildSegment(interpolatePosition(time, *range), &candidate, fd, hint)) return false;
    if (!rangeContains(*range, candidate)) {
      reportBadData();
      return false;
    }
    if (candidate.holdsTime(time)) {
      *range = candidate;
      return true;
    }
    if (time < candidate.first.time) {
      range->last = candidate.first;
      --hint;  // To the candidate: what is still in question lies before it.
    } else {
      range->first = candidate.last;
    }
    KT_ASSERT(range->span() < span);
    if (range->span() >= span) return false;
  }
}

// Turns the range into the segment that holds `position`, and enters that into the index.
bool KTFLVData::buildSegment(i64 position, SegmentRange* range, int fd, IndexIterator hint) {
  FrameRecord frame;
  if (!findFrameAtOrBefore(position, &frame, *range, fd)) return false;

  const i64 block = (frame.end - 1) / segmentBlockSize * segmentBlockSize;
  if (frame.position <= block) {
    range->first = frame;
  } else if (block > range->first.position) {
    FrameRecord opener;
    if (!findFrameAtOrBefore(block, &opener, *range, fd)) return false;
    KT_ASSERT(opener.position >= range->first.position);
    range->first = opener;
  }
  // Otherwise the range itself begins inside this block: at the first tag of the file, at a segment that is
  // known already, or where the file ended before it grew.

  const i64 nextBlock = block + segmentBlockSize;
  if (nextBlock < range->last.position) {
    const PassThroughScope stay(fileBuffer);
    FrameRecord next;
    if (!findFrameAtOrBefore(nextBlock, &next, *range, fd)) return false;
    KT_ASSERT(next.position < range->last.position);
    range->last = next;
  }
  return insertSegment(*range, hint);
}

bool KTFLVData::insertSegment(const SegmentRange& range, IndexIterator hint) {
  if (range.span() <= 0) return false;
  segmentIndex.insert(hint, range);
  return true;
}

// Joins the index to tags that come behind it. What begins at `start` or behind it was found after a flush
// that failed, and is about to be entered as a whole.
void KTFLVData::endIndexAt(const FrameRecord& start) {
  while (!segmentIndex.empty() && segmentIndex.back().first.position >= start.position) {
    segmentIndex.pop_back();
  }
  if (!segmentIndex.empty() && segmentIndex.back().last.position >= start.position) {
    segmentIndex.back().last = start;
  }
}

void KTFLVData::toBounds(const SegmentRange& range, SegmentBounds* bounds) const {
  *bounds = {range.first.position, range.last.position - 1, range.first.time, range.last.time};
  // The first segment covers the file header too.
  if (bounds->startPosition <= firstFrame.position) bounds->startPosition = 0;
}

}  // namespace orv::flv
