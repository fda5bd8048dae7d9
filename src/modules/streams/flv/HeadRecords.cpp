#include "modules/streams/flv/HeadRecords.h"

#include "server/FLVTag.h"
#include "server/KTCommand.h"
#include "util/KTThrowable.h"

using orv::util::FileReadException;

namespace orv::flv {
namespace {

// Media at time 0 may stand between head records, up to here.
constexpr int kMaxHeadTags = 20;

// A control message for the receiver, sent along with each additional header.
constexpr u8 kControlRecord[] = {0x00, 0x21, 0x00, 0x00, 0x00, 0x00};
constexpr u8 kControlType = 4;

// False, with `bytes` as they come, if no tag with one behind it has room there.
bool readTagHeader(const HeadRecords::Tags& tags, i64 position, u8* bytes) {
  if (position < tags.begin || position > tags.end || tags.end - position < kTagOverhead) return false;
  try {
    tags.buffer.readExactly(tags.fd, position, bytes, kTagHeaderSize, ORV_READ_HERE);
  } catch (const FileReadException&) {
    return false;
  }
  return tags.end - (position + kTagHeaderSize) >= kTagOverhead;
}

// Null if the tag can't be read or there is no memory for it.
KTMessagePtr readTagMessage(const HeadRecords::Tags& tags, i64 position) {
  u8 bytes[kTagHeaderSize];
  if (!readTagHeader(tags, position, bytes)) return KTMessagePtr(nullptr);
  const TagHeader header{bytes};
  try {
    KTMessagePtr message;
    message->setType(header.typeByte() & kTypeMask);
    message->setTime(header.time());
    if (!message->resize(header.dataSize())) return KTMessagePtr(nullptr);
    tags.buffer.readExactly(tags.fd, position + kTagHeaderSize, message->memory->data, header.dataSize(),
                            ORV_READ_HERE);
    return message;
  } catch (const FileReadException&) {
    return KTMessagePtr(nullptr);
  }
}

}  // namespace

u32 HeadRecords::classifyRecord(std::string_view name) {
  if (name == "onXMPData") return kTrackXmpData;
  if (name == "|AdditionalHeader") return kTrackAdditionalHeader;
  if (name == kMetaDataName) return kTrackMetaData;
  return 0;
}

// Media between head records are stepped over by their headers: their payload, which may be long, tells
// nothing.
void HeadRecords::scan(const Tags& tags, const std::function<void()>& onBadRecord) {
  contexts_.clear();
  forgetMetadata();

  i64 position = tags.begin;
  u8 bytes[kTagHeaderSize];
  const TagHeader header{bytes};
  for (int count = 0; count < kMaxHeadTags; ++count) {
    if (!readTagHeader(tags, position, bytes) || header.time() != 0) return;
    KTMessagePtr message(nullptr);
    if (isDataType(header.typeByte() & kTypeMask)) {
      message = readTagMessage(tags, position);
      if (!message) return;
    }
    // Another file may have stood here, with a record in this place.
    sidePositions_.erase(position);
    try {
      if (message) considerRecord(message, position);
    } catch (const KTBreakConnection&) {
      onBadRecord();
    }
    position += i64{header.dataSize()} + kTagOverhead;
  }
}

void HeadRecords::clear() {
  contexts_.clear();
  sidePositions_.clear();
  forgetMetadata();
}

void HeadRecords::setMetadata(const KTMessagePtr& message, i64 position) {
  metadata_ = message;
  metadataPosition_ = position;
}

void HeadRecords::considerRecord(const KTMessagePtr& message, i64 position) {
  const KTCommand command(SingleMessagePtr(message.get()), false);
  storeHeadRecord(command, message, position);
}

void HeadRecords::storeHeadRecord(const KTCommand& command, const KTMessagePtr& message, i64 position) {
  const u32 track = classifyRecord(command.name().text());
  if (track == 0) return;
  addMediaContext(message->time(), message->type(), message->memory->data, message->length(), track);
  sidePositions_.insert(position);
  if (track == kTrackAdditionalHeader)
    addMediaContext(0, kControlType, kControlRecord, sizeof kControlRecord, kTrackControl);
  if (track == kTrackMetaData && !metadata_) setMetadata(message, position);
}

void HeadRecords::addMediaContext(u32 time, u8 type, const u8* data, u32 size, u32 trackID) {
  MediaContext record;
  record.time = time;
  record.messageType = type;
  record.buffer = KTBuffer(size, nullptr);
  record.buffer.append(data, size);
  record.trackID = trackID;
  contexts_.add(record);
}

}  // namespace orv::flv
