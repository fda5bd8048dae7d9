// Recording: each message becomes a whole tag in memory; the file itself is opened on first use and then left
// alone until the flush.

#include <cstring>

#include "modules/streams/flv/KTFLVData.h"
#include "server/FLVTag.h"
#include "server/KTCommand.h"

namespace orv::flv {
namespace {

constexpr u8 kVideoCodecH264 = 7;
constexpr u8 kSoundFormatAac = 10;
constexpr u8 kKeyFrame = 1;

u8 highNibble(u8 byte) {
  return byte >> 4;
}
u8 lowNibble(u8 byte) {
  return byte & 0x0F;
}

bool mayBeMetadata(u8 type, u32 time) {
  return time == 0 && (type == kTypeDataAmf0 || type == kTypeDataAmf3);
}

}  // namespace

bool KTFLVData::record(u16 type, const void* data, u32 size, u32 time) {
  const KTMutexGuard lock(mutex);
  if (!openForRecord()) return false;
  const RecordedMessage message{static_cast<u8>(type), static_cast<const u8*>(data), size, time};
  KT_ASSERT(data || size == 0);
  if (!data && size > 0) return true;
  if (!checkCodec(message)) return true;
  noteCodecs(message);
  const bool noted = noteMetadata(message);
  const bool staged = recordBuffer.appendTag(message.type, data, size, time);
  KT_ASSERT(staged);
  if (noted && !staged) forgetMetadata();
  return true;
}

bool KTFLVData::openForRecord() {
  if (recordOpen) return true;
  recordOpen = true;  // First, so that a failure below isn't tried again with each message.
  unfinishedFlush = {};
  recordBuffer.restart();
  if (!open() || !checkHeader(fd())) return false;
  if (seek(0, 2) == 0) {
    if (!writeFileHeader()) return false;
    fileBuffer.reset(-1, 0);
  }
  return scan(fd());
}

// In five pieces, each of which reaches the mirror by itself.
bool KTFLVData::writeFileHeader() {
  u8 header[kFirstTagPosition] = {'F', 'L', 'V', 1, typeFlags, 0, 0, 0, kFileHeaderSize, 0, 0, 0, 0};
  u32 offset = 0;
  for (const u32 size : {3u, 1u, 1u, 4u, 4u}) {
    if (write(header + offset, size) == -1) return false;
    offset += size;
  }
  return true;
}

// H.264 and AAC need codec records that this kind of recording can't keep; each is told once a stream.
bool KTFLVData::checkCodec(const RecordedMessage& message) {
  if (message.size == 0) return true;
  const u8 first = message.data[0];
  if (message.type == kTypeVideo && lowNibble(first) == kVideoCodecH264) {
    warnOnce(&warnH264, u"Recording H264 to FLV is unsupported, tried in FLV : %S");
    return false;
  }
  if (message.type == kTypeAudio && highNibble(first) == kSoundFormatAac) {
    warnOnce(&warnAAC, u"Recording AAC to FLV is unsupported, tried in FLV : %S");
    return false;
  }
  return true;
}

void KTFLVData::warnOnce(bool* due, const char16_t* format) {
  if (*due) logPath(format, kLogWarning);
  *due = false;
}

void KTFLVData::noteCodecs(const RecordedMessage& message) {
  if (message.size == 0) return;
  const u8 first = message.data[0];
  if (message.type == kTypeVideo) {
    if (videoCodec == 0) videoCodec = lowNibble(first);
    lastVideoKey = highNibble(first) == kKeyFrame;
  } else if (message.type == kTypeAudio && audioCodec == 0) {
    audioCodec = highNibble(first);
  }
}

// True if the message has become the stream's metadata.
bool KTFLVData::noteMetadata(const RecordedMessage& message) {
  if (metadata || !mayBeMetadata(message.type, message.time)) return false;
  metadata = parseMetadata(message);
  if (!metadata) return false;
  // Where the tag will stand after the next flush, which writes what isn't in the file yet; if that can't be
  // told it has no place, and is never rewritten.
  const i64 fileEnd = seek(0, 2);
  metadataPosition = fileEnd == -1 ? -1 : fileEnd + recordBuffer.end - unfinishedFlush.written;
  return true;
}

// For a message that couldn't be staged, too: another tag will stand in its place.
void KTFLVData::forgetMetadata() {
  metadata = KTMessagePtr(nullptr);
  metadataPosition = -1;
}

KTMessagePtr KTFLVData::parseMetadata(const RecordedMessage& message) {
  KTMessagePtr none(nullptr);
  KTMessagePtr parsed;
  parsed->setType(message.type & kTypeMask);
  parsed->setTime(0);
  if (!parsed->append(message.data, message.size)) return none;
  const KTCommand command(SingleMessagePtr(parsed.get()), false);
  return command.name().text() == "onMetaData" ? parsed : none;
}

}  // namespace orv::flv
