// Seeking and delivery: the look-ups in the index, and the operations that open the file for them.

#include <algorithm>

#include "modules/streams/flv/KTFLVData.h"
#include "modules/streams/flv/OpenFile.h"
#include "modules/streams/flv/SegmentLoader.h"
#include "modules/streams/flv/SegmentSeek.h"

namespace orv::flv {

FrameFinder KTFLVData::frameFinder(int fd) {
  return {{fileBuffer, fileService(), fd, readSize, maxFrameScan},
          {summary.firstFrame.position, summary.dataEnd, frameTypes},
          badData};
}

bool KTFLVData::findFrameAtOrBefore(i64 position, FrameRecord* frame, SegmentRange range, int fd) {
  return frameFinder(fd).findFrameAtOrBefore(position, frame, range);
}

bool KTFLVData::findSegmentByTime(u32 time, SegmentRange* range) {
  if (time < summary.firstFrame.time || time >= summary.lastFrame.time) return false;
  SegmentIndex::Hint hint;
  *range = summary.wholeFile();
  if (segmentIndex.searchIndexByTime(time, range, &hint)) return true;
  if (range->last.position > summary.dataEnd) return false;  // A scan that failed has seen a shorter file.
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return false;
  const PassThroughScope stay(fileBuffer);
  FrameFinder finder = frameFinder(file.fd());
  return SegmentSeek(finder, segmentIndex, *range, hint).seekSegmentByTime(time, range);
}

bool KTFLVData::findSegmentByIndex(i64 index, SegmentRange* range) {
  if (index >= summary.dataEnd) return false;
  index = std::max(index, summary.firstFrame.position);
  SegmentIndex::Hint hint;
  *range = summary.wholeFile();
  if (segmentIndex.searchIndexByPosition(index, range, &hint)) return true;
  if (!range->holdsPosition(index)) return false;  // A scan that failed has seen a longer file.
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return false;
  FrameFinder finder = frameFinder(file.fd());
  return SegmentSeek(finder, segmentIndex, *range, hint).seekSegmentByPosition(index, range);
}

void KTFLVData::toBounds(const SegmentRange& range, SegmentBounds* bounds) const {
  *bounds = {range.first.position, range.last.position - 1, range.first.time, range.last.time};
  // The first segment covers the file header too.
  if (bounds->startPosition <= summary.firstFrame.position) bounds->startPosition = 0;
}

bool KTFLVData::loadSegment(const SegmentBounds& bounds, ISegmentHolder* holder) {
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return false;
  const BlockRelease idle(fileBuffer);
  const i64 start = std::max(bounds.startPosition, summary.firstFrame.position);
  const i64 stop = bounds.endPosition < summary.dataEnd ? bounds.endPosition + 1 : summary.dataEnd;
  const DeliveryRules rules{summary.dataEnd, headRecords, enableAggMsgs, maxAggMsgSize};
  return SegmentLoader(fileBuffer, file.fd(), rules, holder).load(start, stop);
}

}  // namespace orv::flv
