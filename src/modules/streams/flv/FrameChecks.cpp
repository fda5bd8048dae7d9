#include "modules/streams/flv/FrameChecks.h"

namespace orv::flv {
namespace {

u32 readSizeField(FrameSource& source, i64 position) {
  u8 bytes[kSizeFieldSize];
  source.read(position, bytes, sizeof bytes, true);
  return readU32(bytes);
}

}  // namespace

bool FrameChecks::readFrameHeader(FrameSource& source, i64 position, FrameRecord* frame) const {
  u8 bytes[kTagHeaderSize];
  if (source.read(position, bytes, sizeof bytes, false) < sizeof bytes) return false;
  const TagHeader header{bytes};
  if (!couldBeFrame(header, position)) return false;
  *frame = {position, header.time(), position + header.dataSize() + kTagOverhead};

  u8 previous[kSizeFieldSize];
  if (source.read(position - kSizeFieldSize, previous, sizeof previous, false) < sizeof previous)
    return false;
  // A tag of that length must still begin inside the file.
  return position > i64{readU32(previous)} + kSizeFieldSize;
}

bool FrameChecks::checkForward(FrameSource& source, i64 position) const {
  const i64 dataEnd = limits_.dataEnd;
  if (position >= dataEnd) return true;
  for (int tag = 0; tag < 2; ++tag) {
    u8 bytes[kTagHeaderSize];
    source.read(position, bytes, sizeof bytes, true);
    const u32 size = TagHeader{bytes}.dataSize() + kTagHeaderSize;
    if (size > dataEnd - position) return false;
    position += size;
    if (readSizeField(source, position) != size) return false;
    if (dataEnd - position <= kSizeFieldSize) return true;
    position += kSizeFieldSize;
  }
  return true;
}

bool FrameChecks::checkBackward(FrameSource& source, i64 position) const {
  for (int tag = 0; tag < 2 && position >= limits_.firstTag; ++tag) {
    const u32 size = readSizeField(source, position - kSizeFieldSize);
    if (size == 0) {
      // The field before the first tag of every file: no evidence either way.
      position -= kSizeFieldSize;
      continue;
    }
    if (position < limits_.firstTag + size + kSizeFieldSize) return false;
    position -= i64{size} + kSizeFieldSize;
    u8 bytes[kTagHeaderSize];
    source.read(position, bytes, sizeof bytes, true);
    if (TagHeader{bytes}.dataSize() + kTagHeaderSize != size) return false;
  }
  return true;
}

bool FrameChecks::validateFrame(FrameSource& source, i64 position, FrameRecord* frame) const {
  return readFrameHeader(source, position, frame) && checkForward(source, position) &&
         checkBackward(source, position);
}

}  // namespace orv::flv
