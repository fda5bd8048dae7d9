// The flush: what was recorded goes behind the file's last byte, then the header's flags byte and the
// metadata are brought up to date in place. The order decides what a crash leaves: the tags of earlier
// flushes stay as they are.

#include <algorithm>

#include "modules/streams/flv/KTFLVData.h"
#include "server/FLVTag.h"
#include "server/KTCommand.h"
#include "server/KTDataArray.h"

namespace orv::flv {
namespace {

constexpr u8 kAmf3Double = 5;

KTData numberValue(double number) {
  KTData value;
  value.setNumber(number);
  return value;
}

}  // namespace

bool KTFLVData::flushSegment(SegmentBounds* bounds) {
  const KTMutexGuard lock(mutex);
  const int file = fd();
  if (file == -1) return false;
  const i64 fileEnd = seek(0, 2);
  if (fileEnd == -1) return false;
  const FrameRecord start = appendStagedTags(fileEnd);
  if (!writeTypeFlags()) return false;
  duration = std::max(duration, recordBuffer.maxTime());
  rewriteMetadata();

  fileBuffer.reset(-1, 0);  // The scan is to see the file, not what an older block holds of it.
  scan(file);
  const SegmentRange range{start, lastFrame};
  insertSegment(range, segmentIndex.end());
  ++segmentCount;
  toBounds(range, bounds);

  recordBuffer.clearTags();
  unfinishedFlush = {};
  close();
  recordOpen = false;
  scanTime = getModifiedTime();  // Our own write is nobody else's change.
  return dataEnd > 0;
}

// Writes what is staged at the file's end, where the cursor stands, and answers the place of its first tag. A
// flush that then failed at the flags byte has left the buffer as it was, so that nothing is lost; the next
// one writes only what isn't in the file yet, so that nothing stands there twice.
FrameRecord KTFLVData::appendStagedTags(i64 fileEnd) {
  if (!unfinishedFlush.pending) unfinishedFlush = {true, dataEnd, duration, 0, 0};
  const u32 before = unfinishedFlush.written;
  const u32 wanted = recordBuffer.end - before;
  const i64 written = std::clamp<i64>(write(recordBuffer.data + before, wanted), 0, wanted);
  unfinishedFlush.written += static_cast<u32>(written);
  unfinishedFlush.fileEnd = fileEnd + written;

  const i64 oldEnd = unfinishedFlush.dataEnd;
  const FrameRecord start{oldEnd, unfinishedFlush.duration, oldEnd + recordBuffer.firstTagSize()};
  endIndexAt(start);
  dataEnd = oldEnd + recordBuffer.end;
  typeFlags |= recordBuffer.seenFlags();
  return start;
}

bool KTFLVData::writeTypeFlags() {
  return seek(kTypeFlagsPosition, 0) != -1 && write(&typeFlags, 1) == 1;
}

// Puts the new metadata exactly over the old, or not at all: the tag's header and trailing size stay right,
// and no other tag moves. A payload that isn't in the file, because the write of the tags fell short, is not
// written behind a gap. False if the file was left alone.
bool KTFLVData::rewriteMetadata() {
  if (!metadata || metadataPosition < 0) return false;
  if (metadataPosition + kTagHeaderSize + metadata->length() > unfinishedFlush.fileEnd) return false;
  const KTMessagePtr updated = updatedMetadata();
  if (!updated || updated->length() != metadata->length()) return false;
  if (seek(metadataPosition + kTagHeaderSize, 0) == -1) return false;
  const i64 written = write(updated->memory->data, updated->length());
  fileBuffer.reset(-1, 0);
  if (written != updated->length()) return false;
  metadata = updated;
  return true;
}

// The metadata with its values brought up to date; null if it holds none of the keys.
KTMessagePtr KTFLVData::updatedMetadata() const {
  KTMessagePtr none(nullptr);
  const KTCommand old(SingleMessagePtr(metadata.get()), false);
  const KTData& values = old.arg(0);
  const KTDataArray* const entries = values.asArray();
  if (!entries) return none;

  const bool amf3 = metadata->type() == kTypeDataAmf3;
  const bool asArray = values.type() == KTData::EcmaArray || values.type() == KTData::StrictArray;
  KTCommand writer;
  if (amf3) writer.setEncoding(3);
  writer.setName("onMetaData");
  writer.setTransactionId(numberValue(0));
  bool changed = false;
  for (u32 i = 0; i < entries->size(); ++i) {
    const KTString& key = entries->keyAt(i);
    KTData value = entries->valueAt(i);
    changed |= updateValue(key, amf3, &value);
    if (asArray) {
      writer.addArrayProperty(key, value);
    } else {
      writer.addObjectProperty(key, value);
    }
  }
  return changed && !writer.failed() ? writer.toDataMessage() : none;
}

bool KTFLVData::updateValue(const KTString& key, bool amf3, KTData* value) const {
  if (key.equalsNoCase("duration")) {
    constexpr double kMillisecondsPerSecond = 1000.0;
    *value = numberValue(duration / kMillisecondsPerSecond);
    if (amf3) value->setSubtype(kAmf3Double);
    return true;
  }
  if (key.equalsNoCase("videocodecid") && value->toInt() == 0) {
    *value = numberValue(videoCodec);
    return true;
  }
  if (key.equalsNoCase("audiocodecid") && value->toInt() == 0) {
    *value = numberValue(audioCodec);
    return true;
  }
  if (key.equalsNoCase("canSeekToEnd")) {
    value->setBool(lastVideoKey);
    return true;
  }
  return false;
}

}  // namespace orv::flv
