#include "modules/streams/flv/FrameFinder.h"

#include <algorithm>

#include "util/KTThrowable.h"

using orv::util::FileReadException;

namespace orv::flv {

bool FrameFinder::findFrameAtOrBefore(i64 position, FrameRecord* frame, const SegmentRange& range) {
  if (reports_.usedUp()) return false;
  KT_ASSERT(range.holdsPosition(position));
  if (position >= range.first.position && position < range.first.end) {
    *frame = range.first;
    return true;
  }
  try {
    SearchWindow window(file_.buffer, file_.service, file_.fd, position, file_.readSize);
    const i64 lowest = std::max({range.first.position, position - file_.maxScan, i64{0}});
    return searchDown(window, position, lowest, range, frame);
  } catch (const FileReadException&) {
    return false;
  }
}

bool FrameFinder::searchDown(SearchWindow& window, i64 highest, i64 lowest, const SegmentRange& range,
                             FrameRecord* frame) {
  // Nothing that starts higher can end inside the data.
  highest = std::min(highest, limits().dataEnd - kTagOverhead);
  for (i64 position = highest; position >= lowest; --position) {
    const SearchWindow::View view = window.view(position);
    if (!view.holds(position, kTagHeaderSize)) {
      position = window.skipUnreadable(position);
      continue;
    }
    const i64 bottom = std::max(lowest, view.start);
    if (findInView(window, view, position, bottom, frame)) {
      if (frame->position >= range.first.position && frame->end <= range.last.position) return true;
      reports_.reportBadData();
      return false;
    }
    position = bottom;
  }
  return false;
}

// The highest sound frame that starts from `lowest` to `highest`, all inside `view`.
bool FrameFinder::findInView(SearchWindow& window, const SearchWindow::View& view, i64 highest, i64 lowest,
                             FrameRecord* frame) const {
  i64 candidate = likelyCandidate(view, highest, lowest);
  for (; candidate >= lowest && !window.isInGrid();
       candidate = likelyCandidate(view, candidate - 1, lowest)) {
    if (checks_.validateFrame(window, candidate, frame)) return true;
  }
  // Hostile bytes bring millions of candidates, whose checks look all over the file: while one is checked,
  // what the next one's check begins with comes from memory.
  while (candidate >= lowest) {
    const i64 next = likelyCandidate(view, candidate - 1, lowest);
    if (next >= lowest) window.prefetch(next + TagHeader{view.at(next)}.dataSize() + kTagHeaderSize);
    if (checks_.validateFrame(window, candidate, frame)) return true;
    candidate = next;
  }
  return false;
}

// The highest position from `highest` down to `lowest`, all inside `view`, that could pass the checks as far
// by its own few bytes; the one below `lowest` if none could. Nearly every candidate dies here, without
// a call.
i64 FrameFinder::likelyCandidate(const SearchWindow::View& view, i64 highest, i64 lowest) const {
  const i64 firstWithField = std::max(lowest, view.start + kSizeFieldSize);
  i64 position = highest;
  for (; position >= firstWithField; --position) {
    const i64 at = limits().types.highest(view.bytes, position - view.start, firstWithField - view.start);
    position = view.start + at;
    if (position < firstWithField) break;
    const TagHeader header{view.at(position)};
    if (checks_.couldBeFrame(header, position) &&
        checks_.couldFollow(readU32(header.bytes - kSizeFieldSize), position))
      return position;
  }
  // The field in front of the view's first bytes isn't in it.
  while (position >= lowest && !checks_.couldBeFrame(TagHeader{view.at(position)}, position)) --position;
  return std::max(position, lowest - 1);
}

bool FrameFinder::findLastFrame(FrameRecord* frame, const FrameRecord& first, bool searchBack) {
  const i64 dataEnd = limits().dataEnd;
  if (!file_.buffer.prime(file_.fd, dataEnd, autofilebuffer::backward)) return false;
  try {
    u8 field[kSizeFieldSize];
    file_.buffer.readExactly(file_.fd, dataEnd - kSizeFieldSize, field, sizeof field, ORV_READ_HERE);
    const u32 size = readU32(field);
    const i64 candidate = dataEnd - kSizeFieldSize - size;
    BufferSource source(file_.buffer, file_.fd);
    if (candidate >= first.position && size >= kTagHeaderSize &&
        checks_.validateFrame(source, candidate, frame))
      return true;
  } catch (const FileReadException&) {
    return false;
  }
  const SegmentRange whole{first, FrameRecord::endMark(dataEnd, 0xFFFFFFFF)};
  return searchBack && findFrameAtOrBefore(dataEnd - 1, frame, whole);
}

bool FrameFinder::readFrameHeader(i64 position, FrameRecord* frame) {
  BufferSource source(file_.buffer, file_.fd);
  return checks_.readFrameHeader(source, position, frame);
}

}  // namespace orv::flv
