#include "modules/streams/flv/FileSummary.h"

#include "modules/streams/flv/OpenFile.h"
#include "server/FLVTag.h"

using orv::util::FileReadException;

namespace orv::flv {
namespace {

// Bytes on either side of an old end that are read for it.
constexpr i64 kAround = 8192;

}  // namespace

void SummaryScan::scan() {
  file_.buffer.readExactly(file_.fd, kTypeFlagsPosition, &summary_.typeFlags, 1, ORV_READ_HERE);
  summary_.dataEnd = sizeOf(file_.service, file_.fd);
  readFirstFrame();
  locateEndAside();
}

FrameFinder SummaryScan::finder(autofilebuffer& buffer) {
  return {{buffer, file_.service, file_.fd, file_.readSize, file_.maxScan},
          {summary_.firstFrame.position, summary_.dataEnd, types_},
          reports_};
}

void SummaryScan::readFirstFrame() {
  u8 field[4];
  file_.buffer.readExactly(file_.fd, kHeaderSizePosition, field, sizeof field, ORV_READ_HERE);
  const u32 first = readU32(field) + kSizeFieldSize;  // In 32 bits: a lying header size wraps.
  if (first == summary_.dataEnd) {
    summary_.firstFrame = FrameRecord::endMark(first, 0);
    return;
  }
  FrameRecord frame;
  if (!finder(file_.buffer).readFrameHeader(first, &frame)) throw FileReadException();
  summary_.firstFrame = frame;
}

// The block at the front is needed again, for the head records. In a file longer than a block it stays in
// place.
void SummaryScan::locateEndAside() {
  if (summary_.dataEnd <= i64{file_.buffer.capacity()}) {
    locateEnd();
    return;
  }
  autofilebuffer end(file_.buffer.capacity(), file_.service);
  locateEnd(end);
}

void SummaryScan::locateEnd(autofilebuffer& buffer) {
  FrameRecord last;
  if (findLastFrame(buffer, &last)) {
    summary_.dataEnd = last.end;
    summary_.duration = last.time;
    summary_.lastFrame = FrameRecord::endMark(last.end, last.time + 1);
  } else {
    summary_.dataEnd = summary_.firstFrame.position;
    summary_.duration = 0;
    summary_.lastFrame = FrameRecord::endMark(summary_.dataEnd, 0);
  }
}

bool SummaryScan::findLastFrame(autofilebuffer& buffer, FrameRecord* frame) {
  if (file_.fd == 0) return false;
  return finder(buffer).findLastFrame(frame, summary_.firstFrame, searchBack_);
}

// The end that lies furthest into the file speaks for all: where anything in front of it has another length,
// no tag of that time stands there. While somebody appends, a torn tag hides the one in front of an old end,
// which stands there all the same.
bool SummaryScan::stillEndsAt(const FrameRecord& known) {
  if (known.position == summary_.dataEnd) return known == summary_.lastFrame;
  const bool isHidden = known.position > summary_.dataEnd;
  if (isHidden && (!known.isEndMark() || known.position >= sizeOf(file_.service, file_.fd))) return false;

  const PassThroughScope stay(file_.buffer);
  autofilebuffer near(2 * kAround, file_.service, &file_.buffer);
  FrameRecord frame;
  if (!isHidden && !finder(near).readFrameHeader(known.position, &frame)) return false;
  return known.isEndMark() ? isOldEnd(near, known) : frame == known;
}

// The time of the mark is one more than that of the tag in front of it.
bool SummaryScan::isOldEnd(autofilebuffer& buffer, const FrameRecord& mark) {
  BufferSource source(buffer, file_.fd);
  u8 bytes[kTagHeaderSize];
  if (source.read(mark.position - kSizeFieldSize, bytes, kSizeFieldSize, false) < kSizeFieldSize)
    return false;
  const i64 back = i64{readU32(bytes)} + kSizeFieldSize;
  if (back > kAround) return true;
  return source.read(mark.position - back, bytes, sizeof bytes, false) == sizeof bytes &&
         TagHeader{bytes}.time() + 1 == mark.time;
}

}  // namespace orv::flv
