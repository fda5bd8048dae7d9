// The flush: what was recorded goes behind the file's last byte, then the header's flags byte and the
// metadata are brought up to date in place. The order decides what a crash leaves: the tags of earlier
// flushes stay as they are.

#include <algorithm>
#include <cstring>

#include "modules/streams/flv/KTFLVData.h"
#include "modules/streams/flv/MetadataUpdate.h"
#include "server/FLVTag.h"

namespace orv::flv {

bool KTFLVData::flushSegment(SegmentBounds* bounds) {
  const KTMutexGuard lock(mutex);
  const int file = fd();
  if (file == -1) return false;
  const i64 fileEnd = seek(0, fromEnd);
  if (fileEnd == -1) return false;
  const FlushedTags flushed =
      recording->append(*this, fileEnd, summary.dataEnd, summary.duration, &headRecords);
  takeIn(flushed);
  if (!writeTypeFlags()) return false;
  summary.duration = std::max(summary.duration, flushed.maxTime);
  fileBuffer.reset(-1, 0);  // From here on the file is read as it is now.
  rewriteMetadata(file);
  scan(file);

  const SegmentRange range{flushed.start, summary.lastFrame};
  if (!flushed.isEmpty()) segmentIndex.append(range);
  // No tag came to stand at the old end, which stays a mark.
  if (!flushed.isEmpty() && range.span() == 0) segmentIndex.endAt(summary.lastFrame);
  ++segmentCount;
  toBounds(range, bounds);

  stagedBefore = recording->capacity();
  recording.reset();
  close();
  summary.scanTime = getModifiedTime();  // Our own write is nobody else's change.
  return summary.dataEnd > 0;
}

// What holds already before the flags are written.
void KTFLVData::takeIn(const FlushedTags& flushed) {
  if (!flushed.isEmpty()) segmentIndex.endAt(flushed.start);
  summary.dataEnd = flushed.end;
  summary.typeFlags |= flushed.flags;
}

bool KTFLVData::writeTypeFlags() {
  return seek(kTypeFlagsPosition, fromStart) != -1 && write(&summary.typeFlags, 1) == 1;
}

// Puts the new metadata exactly over the old, or not at all: the tag's header and trailing size stay right,
// and no other tag moves.
void KTFLVData::rewriteMetadata(int file) {
  const KTMessagePtr& old = headRecords.metadata();
  if (!old) return;
  const KTMessagePtr updated = updatedMetadata(old, summary.duration, codecs);
  const u32 size = old->length();
  if (!updated || updated->length() != size || !metadataIsInPlace(file)) return;
  const i64 position = headRecords.metadataPosition();
  if (seek(position + kTagHeaderSize, fromStart) == -1) return;
  if (write(updated->memory->data, size) == size) headRecords.setMetadata(updated, position);
}

// Whether the metadata's tag stands in the file, whole, where it is thought to be: a write of the tags may
// have fallen short, and others may have written too.
bool KTFLVData::metadataIsInPlace(int file) {
  constexpr u32 kNameSize = 3 + kMetaDataName.size();  // Behind its AMF0 marker and length.
  const KTMessagePtr& metadata = headRecords.metadata();
  const i64 position = headRecords.metadataPosition();
  const u32 size = metadata->length();
  if (position < 0 || position + kTagHeaderSize + size > recording->fileEnd()) return false;

  const u32 leading = std::min(size, kNameSize + (metadata->type() == kTypeDataAmf3 ? 1 : 0));
  u8 bytes[kTagHeaderSize + kNameSize + 1];
  const PassThroughScope small(fileBuffer);
  const u32 got =
      fileBuffer.readSome(file, position, bytes, kTagHeaderSize + leading, autofilebuffer::forward);
  const TagHeader header{bytes};
  return got == kTagHeaderSize + leading && (header.typeByte() & kTypeMask) == metadata->type() &&
         header.dataSize() == size &&
         std::memcmp(bytes + kTagHeaderSize, metadata->memory->data, leading) == 0;
}

}  // namespace orv::flv
