// A plain reading of the frame search over the bytes of a whole file: no cache, no shortcut, one candidate
// after the other. Slow, and so simple that it can be checked by eye.

#pragma once

#include <algorithm>
#include <optional>
#include <string_view>

#include "modules/streams/flv/FrameRecord.h"
#include "server/FLVTag.h"
#include "support/FileImage.h"

namespace orv::test {

struct ReferenceScan {
  using FrameRecord = flv::FrameRecord;
  using SegmentRange = flv::SegmentRange;
  enum class Outcome { found, none, badData };

  Bytes file;
  static constexpr std::string_view kTypes = "\x08\x09\x0F\x11\x12\x14\x28\x29\x2F\x31\x32\x34";
  u32 maxFrameScan = 0x1000000;
  u32 maxBackFrameScan = 0x400000;
  bool playIncomplete = true;

  // A size field was cut by the file's end; by chance, an engine may have seen the size there.
  mutable bool ambiguous = false;
  i64 dataEnd = 0;
  u32 duration = 0;
  FrameRecord first, last;

  // 4 bytes as a number. Past the file's end an engine goes on with bytes that match no size: nothing here.
  std::optional<u32> number(i64 position) const {
    if (position + 4 > static_cast<i64>(file.size())) {
      ambiguous = true;
      return {};
    }
    return flv::readU32(&file[static_cast<std::size_t>(position)]);
  }
  std::optional<flv::TagHeader> header(i64 position) const {
    if (position < 0 || position + 11 > static_cast<i64>(file.size())) return {};
    return flv::TagHeader{&file[static_cast<std::size_t>(position)]};
  }

  bool readFrameHeader(i64 position, FrameRecord* frame) const {
    if (position < 4) return false;
    const auto tag = header(position);
    if (!tag) return false;
    *frame = {position, tag->time(), position + tag->dataSize() + 15};
    if (kTypes.find(static_cast<char>(tag->typeByte())) == kTypes.npos || frame->end > dataEnd) return false;
    const auto previous = number(position - 4);
    return previous && position > i64{*previous} + 4;
  }

  bool checkForward(i64 position) const {
    for (int tag = 0; tag < 2; ++tag) {
      if (position >= dataEnd) return true;
      const auto found = header(position);
      if (!found) return false;
      const u32 size = found->dataSize() + 11;
      if (position + size > dataEnd || number(position + size) != size) return false;
      position += size + 4;
    }
    return true;
  }

  bool checkBackward(i64 position) const {
    for (int tag = 0; tag < 2; ++tag) {
      if (position < first.position) return true;
      const auto size = number(position - 4);
      if (!size) return false;
      if (*size == 0) {
        position -= 4;
        continue;
      }
      if (position < first.position + *size + 4) return false;
      const auto found = header(position - *size - 4);
      if (!found || found->dataSize() + 11 != *size) return false;
      position -= i64{*size} + 4;
    }
    return true;
  }

  bool validateFrame(i64 position, FrameRecord* frame) const {
    return readFrameHeader(position, frame) && checkForward(position) && checkBackward(position);
  }

  Outcome findFrameAtOrBefore(i64 p, FrameRecord* frame, const SegmentRange& range, u32 limit) const {
    if (p >= range.first.position && p < range.first.end) {
      *frame = range.first;
      return Outcome::found;
    }
    for (i64 c = p; c >= range.first.position && p - c <= limit; --c) {
      if (!validateFrame(c, frame)) continue;
      return frame->end <= range.last.position ? Outcome::found : Outcome::badData;
    }
    return Outcome::none;
  }

  bool findLastFrame(FrameRecord* frame) const {
    const u32 size = *number(dataEnd - 4);
    const i64 candidate = dataEnd - 4 - i64{size};
    if (candidate >= first.position && size >= 11 && validateFrame(candidate, frame)) return true;
    const SegmentRange range{first, {dataEnd, 0xFFFFFFFF, dataEnd}};
    return playIncomplete &&
           findFrameAtOrBefore(dataEnd - 1, frame, range, maxBackFrameScan) == Outcome::found;
  }

  // What an open finds out; false if it refuses the file.
  bool open() {
    if (file.size() < 9 || file[0] != 'F' || file[1] != 'L' || file[2] != 'V' || file[3] != 1) return false;
    dataEnd = static_cast<i64>(file.size());
    const u32 firstTag = *number(5) + 4;
    first = {dataEnd, 0, dataEnd};
    if (firstTag != dataEnd && !readFrameHeader(firstTag, &first)) return false;
    FrameRecord found;
    const bool any = findLastFrame(&found);
    dataEnd = any ? found.end : first.position;
    duration = any ? found.time : 0;
    last = {dataEnd, any ? duration + 1 : 0, dataEnd};
    return true;
  }
};

// A plain reading of the index and of the two searches: a list that is walked from its front.
struct ReferenceIndex : ReferenceScan {
  static constexpr i64 kBlock = 0x40000;
  using List = std::vector<SegmentRange>;

  List list;
  std::size_t reports = 0;
  i64 allowance = -1;  // Reports less one; below 0: no limit.

  bool report() {
    reports += !usedUp();
    return false;
  }
  bool usedUp() const { return allowance >= 0 && static_cast<i64>(reports) > allowance; }

  // After a look at a file that has changed: the list stays if its last end is still what it was.
  bool refresh() {
    const FrameRecord oldFirst = first;
    playIncomplete &= !usedUp();
    const bool is = open();
    if (!is || (!list.empty() && (first != oldFirst || !stillEnds(list.back().last)))) list.clear();
    return is;
  }
  // A tag that is still being written hides the one in front of an old end.
  bool stillEnds(const FrameRecord& known) const {
    FrameRecord now;
    if (known.position == dataEnd) return known == last;
    const bool isHidden = known.position > dataEnd;
    if (isHidden && (!known.isEndMark() || known.position >= static_cast<i64>(file.size()))) return false;
    if (!isHidden && !readFrameHeader(known.position, &now)) return false;
    if (!known.isEndMark()) return now == known;
    const i64 back = i64{*number(known.position - 4)} + 4;
    const auto tag = header(known.position - back);
    return back > 8192 || (tag && tag->time() + 1 == known.time);
  }

  // The record that holds `value`, or else the range around it and the place in the list.
  template <class Field>
  bool look(i64 value, Field field, SegmentRange* range, std::size_t* hint) const {
    *range = {first, last};
    for (*hint = 0; *hint < list.size(); ++*hint) {
      const SegmentRange& record = list[*hint];
      const i64 from = record.first.*field, to = record.last.*field;
      const bool isTime = std::is_same_v<Field, u32 FrameRecord::*>;
      if ((isTime && value == from) || (value >= from + isTime && value < to)) return *range = record, true;
      if (value < from) return range->last = record.first, false;
      range->first = record.last;
    }
    return false;
  }

  bool findByTime(u32 time, SegmentRange* range) {
    if (time < first.time || time >= last.time) return false;
    std::size_t hint = 0;
    if (look(time, &FrameRecord::time, range, &hint)) return true;
    const i64 oldEnd = anchor(range);
    bool middle = false;
    for (int poor = 0, patience = 4;;) {
      const i64 span = range->span();
      middle = poor == patience;
      if (range->first.time > range->last.time) return report();
      if (span <= 0) return false;
      SegmentRange candidate = *range;
      const i64 place = middle ? range->first.position + span / 2 : guess(time, *range);
      if (!build(place, &candidate, hint, oldEnd)) return false;
      if (!contains(*range, candidate)) return report();
      if (time < candidate.first.time) {
        range->last = candidate.first;
      } else if (time < candidate.last.time || time == candidate.first.time) {
        *range = candidate;
        return true;
      } else {
        range->first = candidate.last;
        ++hint;
      }
      if (range->span() >= span) return false;
      if (middle) patience = 1;
      poor = !middle && range->span() > span / 2 ? poor + 1 : 0;
    }
  }

  bool findByPosition(i64 position, SegmentRange* range) {
    if (position >= dataEnd) return false;
    position = std::max(position, first.position);
    std::size_t hint = 0;
    if (look(position, &FrameRecord::position, range, &hint)) return true;
    const i64 oldEnd = anchor(range);
    return build(position, range, hint, oldEnd);
  }

  // The file has grown, and what was its end is a place like any other.
  i64 anchor(SegmentRange* range) const {
    if (range->first.position != range->first.end || range->span() <= 0) return -1;
    const i64 mark = range->first.position;
    FrameRecord frame;
    if (!readFrameHeader(mark, &frame)) return mark;
    range->first = {mark, std::min(range->first.time, frame.time), frame.end};
    return mark;
  }

  static i64 guess(u32 time, const SegmentRange& range) {
    if (range.last.time == range.first.time) return range.first.position;
    const double ratio = (time - range.first.time) / static_cast<double>(range.last.time - range.first.time);
    const i64 offset = static_cast<i64>(ratio * static_cast<double>(range.span()));
    return std::min(range.first.position + offset, range.last.position - 1);
  }

  static bool contains(const SegmentRange& range, const SegmentRange& candidate) {
    const auto& [from, to] = range;
    const auto& [first, last] = candidate;
    return first.time <= last.time && from.position <= first.position && last.position <= to.position &&
           from.time <= first.time && last.time <= to.time &&
           (from.position != first.position || from.time == first.time) &&
           (to.position != last.position || to.time == last.time);
  }

  bool frameAt(i64 position, FrameRecord* frame, const SegmentRange& range) {
    if (usedUp()) return false;
    const Outcome outcome = findFrameAtOrBefore(position, frame, range, maxFrameScan);
    return outcome == Outcome::badData ? report() : outcome == Outcome::found;
  }

  bool build(i64 position, SegmentRange* range, std::size_t hint, i64 oldEnd) {
    FrameRecord frame;
    if (!frameAt(position, &frame, *range)) return false;
    const i64 block = (frame.end - 1) / kBlock * kBlock;
    if (frame.position <= block) {
      range->first = frame;
    } else if (block != 0 && block < range->first.position) {
      if (range->first.position != first.position && range->first.position != oldEnd) return report();
    } else if (block > range->first.position) {
      if (!frameAt(block, &frame, *range)) return false;
      range->first = frame;
    }
    if (block + kBlock < range->last.position) {
      if (!frameAt(block + kBlock, &frame, *range)) return false;
      range->last = frame;
    }
    if (range->first.position == range->last.position) return false;
    list.insert(list.begin() + static_cast<std::ptrdiff_t>(hint), *range);
    return true;
  }
};

}  // namespace orv::test
