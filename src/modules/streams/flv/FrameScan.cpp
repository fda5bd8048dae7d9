// Which bytes are a tag: the checks of one candidate, the search back from any position, the end of the file.

#include <algorithm>
#include <cstring>

#include "modules/streams/flv/KTFLVData.h"
#include "modules/streams/flv/SearchWindow.h"
#include "server/FLVTag.h"

using orv::util::FileReadException;

namespace orv::flv {
namespace {

// A search gives up on a file once this many of its candidates could not be read at all: a disk that fails
// must not cost a host call and a line of text for each of millions.
constexpr u32 kMaxUnreadable = 16;

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

KTFLVData::HeaderCheck KTFLVData::checkFrameHeader(FrameSource& source, i64 position, FrameRecord* frame) {
  u8 bytes[kTagHeaderSize];
  if (source.read(position, bytes, sizeof bytes, false) < sizeof bytes) return HeaderCheck::unreadable;
  const TagHeader header{bytes};
  *frame = {position, header.time(), position + header.dataSize() + kTagOverhead};
  if (!frameTypes.test(header.typeByte()) || frame->end > dataEnd) return HeaderCheck::noFrame;

  u8 previous[kSizeFieldSize];
  if (source.read(position - kSizeFieldSize, previous, sizeof previous, false) < sizeof previous)
    return HeaderCheck::noFrame;
  // A tag of that length must still begin inside the file.
  return position > i64{readU32(previous)} + kSizeFieldSize ? HeaderCheck::frame : HeaderCheck::noFrame;
}

bool KTFLVData::readFrameHeader(FrameSource& source, i64 position, FrameRecord* frame) {
  return checkFrameHeader(source, position, frame) == HeaderCheck::frame;
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

// The highest position from `highest` down to `lowest`, all inside `view`, whose type and size could open a
// tag; -1 if none does. Nearly every candidate of a search dies here, on bytes in memory and without a call.
i64 KTFLVData::likelyCandidate(const SearchWindow::View& view, i64 highest, i64 lowest) const {
  for (i64 position = highest; position >= lowest; --position) {
    const TagHeader header{view.bytes + (position - view.start)};
    if (frameTypes.test(header.typeByte()) && position + header.dataSize() + kTagOverhead <= dataEnd)
      return position;
  }
  return -1;
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
  u32 unreadable = 0;
  for (i64 position = highest; position >= lowest; --position) {
    const SearchWindow::View view = window.view(position);
    if (position + kTagHeaderSize <= view.start + view.size) {
      const i64 bottom = std::max(lowest, view.start);
      position = likelyCandidate(view, position, bottom);
      if (position < 0) {
        position = bottom;
        continue;
      }
    }
    switch (checkFrameHeader(window, position, frame)) {
      case HeaderCheck::unreadable:
        if (++unreadable == kMaxUnreadable) return false;
        continue;
      case HeaderCheck::noFrame:
        continue;
      case HeaderCheck::frame:
        break;
    }
    if (!checkForward(window, position) || !checkBackward(window, position)) continue;
    if (frame->position >= range.first.position && frame->end <= range.last.position) return true;
    reportBadData();
    return false;
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

void KTFLVData::reportBadData(std::source_location where) {
  if (badDataUsedUp()) return;
  KTWideString text;
  text.format(u"File contains bad data : %S (%S:%d)", streamPath.c_str(), bareName(where.file_name()).c_str(),
              static_cast<int>(where.line()));
  context->logMessage(toNarrow(text).c_str(), kLogBadData, 1);
  ++badDataCount;
}

}  // namespace orv::flv
