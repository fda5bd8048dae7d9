// Which bytes are a tag: the checks of one candidate, the search back from any position, the end of the file.

#include <algorithm>
#include <cstring>

#include "modules/streams/flv/KTFLVData.h"
#include "modules/streams/flv/SearchWindow.h"
#include "server/FLVTag.h"

using orv::util::FileReadException;

namespace orv::flv {
namespace {

KTWideString bareName(const char* sourcePath) {
  const char* const slash = std::strrchr(sourcePath, '/');
  return toWide(KTString(slash ? slash + 1 : sourcePath));
}

u32 readSizeField(FrameSource& source, i64 position) {
  u8 bytes[kSizeFieldSize];
  source.read(position, bytes, sizeof bytes, true);
  return readU32(bytes);
}

}  // namespace

bool KTFLVData::readFrameHeader(FrameSource& source, i64 position, FrameRecord* frame) {
  u8 bytes[kTagHeaderSize];
  if (source.read(position, bytes, sizeof bytes, false) < sizeof bytes) return false;
  const TagHeader header{bytes};
  *frame = {position, header.time(), position + header.dataSize() + kTagOverhead};
  if (!frameTypes.test(header.typeByte()) || frame->end > dataEnd) return false;

  u8 previous[kSizeFieldSize];
  if (source.read(position - kSizeFieldSize, previous, sizeof previous, false) < sizeof previous)
    return false;
  // A tag of that length must still begin inside the file.
  return position > i64{readU32(previous)} + kSizeFieldSize;
}

bool KTFLVData::checkForward(FrameSource& source, i64 position) {
  for (int tag = 0; tag < 2 && position < dataEnd; ++tag) {
    u8 bytes[kTagHeaderSize];
    source.read(position, bytes, sizeof bytes, true);
    const u32 size = TagHeader{bytes}.dataSize() + kTagHeaderSize;
    if (position + size > dataEnd) return false;
    if (readSizeField(source, position + size) != size) return false;
    position += size + kSizeFieldSize;
  }
  return true;
}

bool KTFLVData::checkBackward(FrameSource& source, i64 position) {
  for (int tag = 0; tag < 2 && position >= firstFrame.position; ++tag) {
    const u32 size = readSizeField(source, position - kSizeFieldSize);
    if (size == 0) {
      // The field before the first tag of every file: no evidence either way.
      position -= kSizeFieldSize;
      continue;
    }
    if (position < firstFrame.position + size + kSizeFieldSize) return false;
    position -= i64{size} + kSizeFieldSize;
    u8 bytes[kTagHeaderSize];
    source.read(position, bytes, sizeof bytes, true);
    if (TagHeader{bytes}.dataSize() + kTagHeaderSize != size) return false;
  }
  return true;
}

bool KTFLVData::validateFrame(FrameSource& source, i64 position, FrameRecord* frame) {
  return readFrameHeader(source, position, frame) && checkForward(source, position) &&
         checkBackward(source, position);
}

// What the size field in front of a tag can hold: no more than a tag's size, and no tag from before the first
// one.
bool KTFLVData::couldFollow(u32 previousSize, i64 position) const {
  if (previousSize == 0) return true;
  return previousSize >= kTagHeaderSize && previousSize <= kMaxTagDataSize + kTagHeaderSize &&
         position >= firstFrame.position + previousSize + kSizeFieldSize;
}

// The highest position from `highest` down to `lowest`, all inside `view`, that could pass the checks as far
// as its own few bytes tell; the one below `lowest` if none could. Nearly every candidate dies here, without
// a call.
i64 KTFLVData::likelyCandidate(const SearchWindow::View& view, i64 highest, i64 lowest) const {
  for (i64 position = highest; position >= lowest; --position) {
    const TagHeader header{view.at(position)};
    if (!frameTypes.test(header.typeByte()) || position + header.dataSize() + kTagOverhead > dataEnd)
      continue;
    const bool fieldInView = position - kSizeFieldSize >= view.start;
    if (fieldInView && !couldFollow(readU32(header.bytes - kSizeFieldSize), position)) continue;
    return position;
  }
  return lowest - 1;
}

bool KTFLVData::findFrameAtOrBefore(i64 position, FrameRecord* frame, SegmentRange range, int fd) {
  return searchBack(position, frame, range, fd, maxFrameScan);
}

bool KTFLVData::searchBack(i64 position, FrameRecord* frame, const SegmentRange& range, int fd, u32 limit) {
  if (badDataUsedUp()) return false;
  KT_ASSERT(range.holdsPosition(position));
  if (position >= range.first.position && position < range.first.end) {
    *frame = range.first;
    return true;
  }
  try {
    SearchWindow window(fileBuffer, fileService(), fd, position, readSize);
    const i64 lowest = std::max({range.first.position, position - limit, i64{0}});
    return searchDown(window, position, lowest, range, frame);
  } catch (const FileReadException&) {
    return false;
  }
}

bool KTFLVData::searchDown(SearchWindow& window, i64 highest, i64 lowest, const SegmentRange& range,
                           FrameRecord* frame) {
  // Nothing that starts higher can end inside the data.
  highest = std::min(highest, dataEnd - kTagOverhead);
  for (i64 position = highest; position >= lowest; --position) {
    const SearchWindow::View view = window.view(position);
    if (!view.holds(position, kTagHeaderSize)) {
      position = window.skipUnreadable(position);
      continue;
    }
    const i64 bottom = std::max(lowest, view.start);
    if (findInView(window, view, position, bottom, frame)) {
      if (frame->position >= range.first.position && frame->end <= range.last.position) return true;
      reportBadData();
      return false;
    }
    position = bottom;
  }
  return false;
}

// The highest sound frame that starts from `lowest` to `highest`, all inside `view`.
bool KTFLVData::findInView(SearchWindow& window, const SearchWindow::View& view, i64 highest, i64 lowest,
                           FrameRecord* frame) {
  i64 candidate = likelyCandidate(view, highest, lowest);
  for (; candidate >= lowest && !window.isInGrid();
       candidate = likelyCandidate(view, candidate - 1, lowest)) {
    if (validateFrame(window, candidate, frame)) return true;
  }
  // Hostile bytes bring millions of candidates, whose checks look all over the file: while one is checked,
  // what the next one's check begins with comes from memory.
  while (candidate >= lowest) {
    const i64 next = likelyCandidate(view, candidate - 1, lowest);
    if (next >= lowest) window.prefetch(next + TagHeader{view.at(next)}.dataSize() + kTagHeaderSize);
    if (validateFrame(window, candidate, frame)) return true;
    candidate = next;
  }
  return false;
}

bool KTFLVData::findLastFrame(int fd, FrameRecord* frame) {
  if (fd == 0) return false;
  if (!fileBuffer.prime(fd, dataEnd, autofilebuffer::backward)) return false;
  try {
    u8 field[kSizeFieldSize];
    fileBuffer.readAt(fd, dataEnd - kSizeFieldSize, field, sizeof field, false, ORV_READ_HERE, false,
                      autofilebuffer::forward);
    const u32 size = readU32(field);
    const i64 candidate = dataEnd - kSizeFieldSize - size;
    BufferSource source(fileBuffer, fd);
    if (candidate >= firstFrame.position && size >= kTagHeaderSize && validateFrame(source, candidate, frame))
      return true;
  } catch (const FileReadException&) {
    return false;
  }
  if (!playIncompleteFLVs) return false;
  const SegmentRange whole{firstFrame, FrameRecord::endMark(dataEnd, 0xFFFFFFFF)};
  return searchBack(dataEnd - 1, frame, whole, fd, maxBackFrameScan);
}

void KTFLVData::locateEnd(int fd) {
  FrameRecord last;
  if (findLastFrame(fd, &last)) {
    dataEnd = last.end;
    duration = last.time;
    lastFrame = FrameRecord::endMark(dataEnd, last.time + 1);
  } else {
    dataEnd = firstFrame.position;
    duration = 0;
    lastFrame = FrameRecord::endMark(dataEnd, 0);
  }
}

bool KTFLVData::badDataUsedUp() const {
  return retryCorruptedFLVs >= 0 && badDataCount > static_cast<u32>(retryCorruptedFLVs);
}

void KTFLVData::reportBadData(const char* file, int line) {
  if (badDataUsedUp()) return;
  KTWideString text;
  text.format(u"File contains bad data : %S (%S:%d)", streamPath.c_str(), bareName(file).c_str(), line);
  context->logMessage(toNarrow(text).c_str(), kLogBadData, 1);
  ++badDataCount;
}

}  // namespace orv::flv
