// The head records: data tags at time 0 in front of the media that describe the stream.

#include "modules/streams/flv/KTFLVData.h"
#include "server/FLVTag.h"
#include "server/KTCommand.h"

using orv::util::FileReadException;

namespace orv::flv {
namespace {

// Media at time 0 may stand between head records, up to here.
constexpr int kMaxHeadTags = 20;

// A control message for the receiver, sent along with each additional header.
constexpr u8 kControlRecord[] = {0x00, 0x21, 0x00, 0x00, 0x00, 0x00};
constexpr u8 kControlType = 4;

bool isData(u8 type) {
  return type == kTypeDataAmf0 || type == kTypeDataAmf3;
}

}  // namespace

u32 KTFLVData::classifyRecord(std::string_view name) {
  if (name == "onXMPData") return kTrackXmpData;
  if (name == "|AdditionalHeader") return kTrackAdditionalHeader;
  if (name == "onMetaData") return kTrackMetaData;
  return 0;
}

// Media between head records are stepped over by their headers: their payload, which may be long, tells
// nothing.
void KTFLVData::scanHeadRecords(int fd) {
  mediaContexts.clear();
  forgetMetadata();

  i64 position = firstFrame.position;
  u8 bytes[kTagHeaderSize];
  const TagHeader header{bytes};
  for (int count = 0; count < kMaxHeadTags; ++count) {
    if (!readTagHeader(fd, position, bytes) || header.time() != 0) return;
    if (isData(header.typeByte() & kTypeMask)) {
      const KTMessagePtr message = readTagMessage(fd, position);
      if (!message) return;
      considerHeadRecord(message, position);
    }
    position += i64{header.dataSize()} + kTagOverhead;
  }
}

bool KTFLVData::readTagHeader(int fd, i64 position, u8* bytes) {
  if (position < firstFrame.position || position > dataEnd || dataEnd - position < kTagOverhead) return false;
  try {
    fileBuffer.readAt(fd, position, bytes, kTagHeaderSize, false, ORV_READ_HERE, false,
                      autofilebuffer::forward);
  } catch (const FileReadException&) {
    return false;
  }
  return dataEnd - (position + kTagHeaderSize) >= kTagOverhead;
}

KTMessagePtr KTFLVData::readTagMessage(int fd, i64 position) {
  u8 bytes[kTagHeaderSize];
  if (!readTagHeader(fd, position, bytes)) return KTMessagePtr(nullptr);
  const TagHeader header{bytes};
  try {
    KTMessagePtr message;
    message->setType(header.typeByte() & kTypeMask);
    message->setTime(header.time());
    if (!message->resize(header.dataSize())) return KTMessagePtr(nullptr);
    fileBuffer.readAt(fd, position + kTagHeaderSize, message->memory->data, header.dataSize(), false,
                      ORV_READ_HERE, false, autofilebuffer::forward);
    return message;
  } catch (const FileReadException&) {
    return KTMessagePtr(nullptr);
  }
}

void KTFLVData::considerHeadRecord(const KTMessagePtr& message, i64 position) {
  try {
    const KTCommand command(SingleMessagePtr(message.get()), false);
    storeHeadRecord(command, message, position);
  } catch (const KTBreakConnection&) {
    logPath(u"File contains bad meta data : %S", kLogWarning);
  }
}

void KTFLVData::storeHeadRecord(const KTCommand& command, const KTMessagePtr& message, i64 position) {
  const u32 track = classifyRecord(command.name().text());
  if (track == 0) return;
  addMediaContext(message->time(), message->type(), message->memory->data, message->length(), track);
  sidePositions.insert(position);
  if (track == kTrackAdditionalHeader)
    addMediaContext(0, kControlType, kControlRecord, sizeof kControlRecord, kTrackControl);
  if (track == kTrackMetaData && !metadata) {
    metadata = message;
    metadataPosition = position;
  }
}

void KTFLVData::addMediaContext(u32 time, u8 type, const u8* data, u32 size, u32 trackID) {
  MediaContext record;
  record.time = time;
  record.messageType = type;
  record.buffer = KTBuffer(size, nullptr);
  record.buffer.append(data, size);
  record.trackID = trackID;
  mediaContexts.add(record);
}

bool KTFLVData::getMediaContexts(ContextType_t type, i64 position, IContextHolder* holder) {
  if (type != ContextTypeBefore) return false;
  return mediaContexts.forEach(type, position, [holder](const MediaContext& record) {
    KT_ASSERT(holder != nullptr);
    if (!holder) return;
    holder->onContext(record.messageType, record.buffer.data, record.buffer.size, record.time,
                      record.position, record.trackID, record.contextType);
  });
}

bool KTFLVData::getAllMediaContexts(IAllContextHolder* holder) {
  KT_ASSERT(holder != nullptr);
  if (!holder) return false;
  KTBuffer buffer;
  if (!mediaContexts.serialize(buffer)) return false;
  holder->onAllContexts(buffer.data, buffer.size);
  return true;
}

}  // namespace orv::flv
