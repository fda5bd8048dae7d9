// The summary of a file, and how it follows a file that changes.

#include "modules/streams/flv/KTFLVData.h"
#include "modules/streams/flv/SegmentSeek.h"
#include "server/FLVTag.h"

using orv::util::FileReadException;

namespace orv::flv {

bool KTFLVData::scan(int fd) {
  scanTime = getModifiedTime();  // First: a write during the scan must look like a change afterwards.
  // From the file's start, where the next opening looks first.
  if (dropStaleBlock(scanTime)) fileBuffer.prime(fd, 0, autofilebuffer::forward);
  const FrameRecord oldFirst = firstFrame;
  try {
    fileBuffer.readExactly(fd, kTypeFlagsPosition, &typeFlags, 1, ORV_READ_HERE);
    dataEnd = sizeOf(fd);
    readFirstFrame(fd);
    locateEndAside(fd);
    headRecords.scan({fileBuffer, fd, firstFrame.position, dataEnd},
                     [this] { logPath(u"File contains bad meta data : %S", kLogWarning); });
  } catch (const FileReadException&) {
    if (!awaitsFlush()) segmentIndex.clear();
    return false;
  }
  if (!awaitsFlush() && !indexFitsFile(fd, oldFirst)) segmentIndex.clear();
  if (segmentIndex.empty()) segmentCount = static_cast<u32>(dataEnd / segmentBlockSize + 1);
  return true;
}

// The block at the front is needed again, for the head records. In a file longer than a block it stays in
// place.
void KTFLVData::locateEndAside(int fd) {
  if (dataEnd <= i64{fileBuffer.capacity()}) {
    locateEnd(fd, fileBuffer);
    return;
  }
  autofilebuffer end(fileBuffer.capacity(), fileService());
  locateEnd(fd, end);
}

void KTFLVData::readFirstFrame(int fd) {
  u8 field[4];
  fileBuffer.readExactly(fd, kHeaderSizePosition, field, sizeof field, ORV_READ_HERE);
  const u32 first = readU32(field) + kSizeFieldSize;  // In 32 bits: a lying header size wraps.
  if (first == dataEnd) {
    firstFrame = FrameRecord::endMark(dataEnd, 0);
    return;
  }
  FrameRecord frame;
  if (!frameFinder(fd, fileBuffer, 0).readFrameHeader(first, &frame)) throw FileReadException();
  firstFrame = frame;
}

bool KTFLVData::findLastFrame(int fd, autofilebuffer& buffer, FrameRecord* frame) {
  if (fd == 0) return false;
  return frameFinder(fd, buffer, maxBackFrameScan).findLastFrame(frame, firstFrame, playIncompleteFLVs);
}

void KTFLVData::locateEnd(int fd, autofilebuffer& buffer) {
  FrameRecord last;
  if (findLastFrame(fd, buffer, &last)) {
    dataEnd = last.end;
    duration = last.time;
    lastFrame = FrameRecord::endMark(dataEnd, last.time + 1);
  } else {
    dataEnd = firstFrame.position;
    duration = 0;
    lastFrame = FrameRecord::endMark(dataEnd, 0);
  }
}

// Whether the file has at most grown since the segments were found, and isn't another one by now. The end
// that lies furthest into the file speaks for all: where anything in front of it has another length, no tag
// of that time stands there. While somebody appends, a torn tag hides the one in front of an old end, which
// stands there all the same. Takes one small read.
bool KTFLVData::indexFitsFile(int fd, const FrameRecord& oldFirst) {
  if (segmentIndex.empty()) return true;
  const FrameRecord known = segmentIndex.back().last;
  if (firstFrame != oldFirst) return false;
  if (known.position == dataEnd) return known == lastFrame;
  const bool isHidden = known.position > dataEnd;
  if (isHidden && (!known.isEndMark() || known.position >= sizeOf(fd))) return false;

  constexpr i64 kAround = 8192;
  const PassThroughScope stay(fileBuffer);
  autofilebuffer near(2 * kAround, fileService(), &fileBuffer);
  BufferSource source(near, fd);
  FrameRecord frame;
  if (!isHidden && !frameFinder(fd, near, 0).readFrameHeader(known.position, &frame)) return false;
  if (!known.isEndMark()) return frame == known;
  // The mark of an old end: its time is one more than that of the tag in front of it.
  u8 bytes[kTagHeaderSize];
  if (source.read(known.position - kSizeFieldSize, bytes, kSizeFieldSize, false) < kSizeFieldSize)
    return false;
  const i64 back = i64{readU32(bytes)} + kSizeFieldSize;
  if (back > kAround) return true;
  return source.read(known.position - back, bytes, sizeof bytes, false) == sizeof bytes &&
         TagHeader{bytes}.time() + 1 == known.time;
}

u32 KTFLVData::getModifiedTime() const {
  FileStat record{};
  if (fileService()->stat(narrowPath().c_str(), &record, 0) != 0) return 0;
  return static_cast<u32>(record.modificationTime);
}

i64 KTFLVData::getSize() {
  if (getModifiedTime() == scanTime) return dataEnd;
  const ReadHandle file(fileService(), narrowPath().c_str());
  return file.isOpen() && scan(file.fd()) ? dataEnd : 0;
}

i64 KTFLVData::getEndPosition() {
  const i64 size = getSize();
  return size > firstFrame.position ? size : 0;
}

KTMessagePtr KTFLVData::getMetaData() {
  if (getModifiedTime() == scanTime) return headRecords.metadata();
  const ReadHandle file(fileService(), narrowPath().c_str());
  return file.isOpen() && scan(file.fd()) ? headRecords.metadata() : KTMessagePtr(nullptr);
}

u32 KTFLVData::getDuration() {
  const u32 now = getModifiedTime();
  if (now == scanTime) return duration;
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return 0;
  dropStaleBlock(now);
  locateEnd(file.fd(), fileBuffer);
  return duration;
}

}  // namespace orv::flv
