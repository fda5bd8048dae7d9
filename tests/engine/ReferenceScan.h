// A plain reading of the frame search over the bytes of a whole file: no cache, no shortcut, one candidate
// after the other. Slow, and so simple that it can be checked by eye.

#pragma once

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
    if (position + 11 > static_cast<i64>(file.size())) return {};
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

}  // namespace orv::test
