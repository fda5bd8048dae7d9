// The summary of a file, and how it follows a file that changes.

#include "modules/streams/flv/KTFLVData.h"
#include "server/FLVTag.h"

using orv::util::FileReadException;

namespace orv::flv {
namespace {

constexpr i64 kSegmentBlockSize = 0x40000;

}  // namespace

bool KTFLVData::scan(int fd) {
  scanTime = getModifiedTime();  // First: a write during the scan must look like a change afterwards.
  dropStaleBlock(scanTime);
  try {
    fileBuffer.readAt(fd, kTypeFlagsPosition, &typeFlags, 1, false, ORV_READ_HERE, false,
                      autofilebuffer::forward);
    dataEnd = sizeOf(fd);
    readFirstFrame(fd);
    locateEnd(fd);
    scanHeadRecords(fd);
  } catch (const FileReadException&) {
    return false;
  }
  if (segmentIndex.empty()) segmentCount = static_cast<u32>(dataEnd / kSegmentBlockSize + 1);
  return true;
}

void KTFLVData::readFirstFrame(int fd) {
  u8 field[4];
  fileBuffer.readAt(fd, kHeaderSizePosition, field, sizeof field, false, ORV_READ_HERE, false,
                    autofilebuffer::forward);
  const u32 first = readU32(field) + kSizeFieldSize;  // In 32 bits: a lying header size wraps.
  if (first == dataEnd) {
    firstFrame = FrameRecord::endMark(dataEnd, 0);
    return;
  }
  BufferSource source(fileBuffer, fd);
  if (!readFrameHeader(source, first, &firstFrame)) throw FileReadException();
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
  if (getModifiedTime() == scanTime) return metadata;
  const ReadHandle file(fileService(), narrowPath().c_str());
  return file.isOpen() && scan(file.fd()) ? metadata : KTMessagePtr(nullptr);
}

u32 KTFLVData::getDuration() {
  const u32 now = getModifiedTime();
  if (now == scanTime) return duration;
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return 0;
  dropStaleBlock(now);
  locateEnd(file.fd());
  return duration;
}

}  // namespace orv::flv
