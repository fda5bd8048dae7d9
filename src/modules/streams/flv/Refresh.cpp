// How the summary of a stream keeps up with its file.

#include "modules/streams/flv/KTFLVData.h"
#include "modules/streams/flv/OpenFile.h"
#include "modules/streams/flv/SegmentSeek.h"

using orv::util::FileReadException;

namespace orv::flv {

bool KTFLVData::scan(int fd) {
  summary.scanTime = getModifiedTime();  // First: a write during the scan must look like a change afterwards.
  // From the file's start, where the next opening looks first.
  if (dropStaleBlock(summary.scanTime)) fileBuffer.prime(fd, 0, autofilebuffer::forward);
  const FrameRecord oldFirst = summary.firstFrame;
  SummaryScan scanned = summaryScan(fd);
  try {
    scanned.scan();
    headRecords.scan({fileBuffer, fd, summary.firstFrame.position, summary.dataEnd},
                     [this] { logPath(u"File contains bad meta data : %S", kLogWarning); });
  } catch (const FileReadException&) {
    if (!awaitsFlush()) segmentIndex.clear();
    return false;
  }
  if (!awaitsFlush() && !indexFitsFile(scanned, oldFirst)) segmentIndex.clear();
  if (segmentIndex.empty()) segmentCount = static_cast<u32>(summary.dataEnd / segmentBlockSize + 1);
  return true;
}

SummaryScan KTFLVData::summaryScan(int fd) {
  return {summary,
          {fileBuffer, fileService(), fd, readSize, maxBackFrameScan},
          frameTypes,
          badData,
          playIncompleteFLVs};
}

bool KTFLVData::indexFitsFile(SummaryScan& scanned, const FrameRecord& oldFirst) const {
  if (segmentIndex.empty()) return true;
  return summary.firstFrame == oldFirst && scanned.stillEndsAt(segmentIndex.back().last);
}

// What the read cache took before the file's last change may not answer for the file as it is now. A stamp of
// 0 may mean that the host doesn't know it. True if it was dropped.
bool KTFLVData::dropStaleBlock(u32 stamp) {
  if (stamp == bufferStamp && stamp != 0) return false;
  fileBuffer.reset(-1, 0);
  bufferStamp = stamp;
  return true;
}

u32 KTFLVData::getModifiedTime() const {
  FileStat record{};
  if (fileService()->stat(narrowPath().c_str(), &record, 0) != 0) return 0;
  return static_cast<u32>(record.modificationTime);
}

i64 KTFLVData::getSize() {
  if (getModifiedTime() == summary.scanTime) return summary.dataEnd;
  const ReadHandle file(fileService(), narrowPath().c_str());
  return file.isOpen() && scan(file.fd()) ? summary.dataEnd : 0;
}

i64 KTFLVData::getEndPosition() {
  const i64 size = getSize();
  return size > summary.firstFrame.position ? size : 0;
}

KTMessagePtr KTFLVData::getMetaData() {
  if (getModifiedTime() == summary.scanTime) return headRecords.metadata();
  const ReadHandle file(fileService(), narrowPath().c_str());
  return file.isOpen() && scan(file.fd()) ? headRecords.metadata() : KTMessagePtr(nullptr);
}

u32 KTFLVData::getDuration() {
  const u32 now = getModifiedTime();
  if (now == summary.scanTime) return summary.duration;
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return 0;
  dropStaleBlock(now);
  summaryScan(file.fd()).locateEnd();
  return summary.duration;
}

}  // namespace orv::flv
