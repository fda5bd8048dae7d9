// Recording: each message becomes a whole tag in memory; the file itself is opened on first use and then left
// alone until the flush.

#include "modules/streams/flv/KTFLVData.h"
#include "server/FLVTag.h"

namespace orv::flv {

bool KTFLVData::record(u16 type, const void* data, u32 size, u32 time) {
  const KTMutexGuard lock(mutex);
  if (!openForRecord()) return false;
  const RecordedMessage message{static_cast<u8>(type), static_cast<const u8*>(data), size, time};
  if (!KT_HOLDS(data || size == 0)) return true;
  if (!codecs.checkCodec(message, [this](const char16_t* format) { logPath(format, kLogWarning); }))
    return true;
  codecs.note(message);
  const bool noted = !headRecords.metadata() && recording->noteMetadata(message, *this, &headRecords);
  // Another tag will stand in the place of one that isn't staged.
  if (!KT_HOLDS(recording->stage(message)) && noted) headRecords.forgetMetadata();
  return true;
}

bool KTFLVData::openForRecord() {
  if (recording) return true;
  recording.emplace();  // First, so that a failure below isn't tried again with each message.
  recording->start(stagedBefore);
  if (isNameless()) {
    logPath(u"Can't record to a path that is empty or no valid text : %S", kLogWarning);
    return false;
  }
  // A descriptor left open by a failure would let the next flush write into a file that may be none of ours.
  try {
    if (openAndScan()) return true;
  } catch (...) {
    close();
    throw;
  }
  close();
  return false;
}

bool KTFLVData::openAndScan() {
  const BlockRelease idle(fileBuffer);  // The flush reads anew.
  if (!open() || !checkHeader(fd())) return false;
  if (seek(0, fromEnd) == 0) {
    forgetFile();
    if (!writeFileHeader()) return false;
    fileBuffer.reset(-1, 0);
  }
  return scan(fd());
}

// Paths that can't be converted all come out empty: their recordings would end up in one file.
bool KTFLVData::isNameless() const {
  return streamPath.view() == u".flv";
}

// For a new file: what is known of one that stood at the path before doesn't hold for it. The scan that
// follows renews the rest.
void KTFLVData::forgetFile() {
  summary.typeFlags = 0;
  segmentIndex.clear();
  headRecords.clear();
}

// In five pieces, each of which reaches the mirror by itself.
bool KTFLVData::writeFileHeader() {
  u8 header[kFirstTagPosition] = {'F', 'L', 'V', 1, summary.typeFlags, 0, 0, 0, kFileHeaderSize, 0, 0, 0, 0};
  u32 offset = 0;
  for (const u32 size : {3u, 1u, 1u, 4u, 4u}) {
    if (write(header + offset, size) == -1) return false;
    offset += size;
  }
  return true;
}

}  // namespace orv::flv
