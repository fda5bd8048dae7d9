#include "modules/streams/flv/Recording.h"

#include <algorithm>

#include "server/FLVTag.h"
#include "server/KTCommand.h"

namespace orv::flv {
namespace {

// Null if the message is no "onMetaData".
KTMessagePtr parseMetadata(const RecordedMessage& message) {
  KTMessagePtr none(nullptr);
  KTMessagePtr parsed;
  parsed->setType(message.type & kTypeMask);
  parsed->setTime(0);
  if (!parsed->append(message.data, message.size)) return none;
  const KTCommand command(SingleMessagePtr(parsed.get()), false);
  return command.name().text() == kMetaDataName ? parsed : none;
}

}  // namespace

bool Recording::stage(const RecordedMessage& message) {
  return buffer_.appendTag(message.type, message.data, message.size, message.time);
}

bool Recording::noteMetadata(const RecordedMessage& message, KTFLVPersist& file, HeadRecords* head) {
  if (message.time != 0 || !isDataType(message.type)) return false;
  const KTMessagePtr parsed = parseMetadata(message);
  if (!parsed) return false;
  head->setMetadata(parsed, -1);
  // Others may write before the flush, which alone knows the place. Where the end isn't known even now the
  // metadata stays without one and is never rewritten.
  if (file.seek(0, fromEnd) != -1) metadata_ = parsed;
  metadataOffset_ = buffer_.end;
  return true;
}

// A flush that failed at the flags byte has left the buffer as it was, so that nothing is lost; the next one
// writes only what isn't in the file yet, so that nothing stands there twice.
FlushedTags Recording::append(KTFLVPersist& file, i64 fileEnd, i64 tagsEnd, u32 duration, HeadRecords* head) {
  if (!isFlushing_) {
    isFlushing_ = true;
    oldTagsEnd_ = tagsEnd;
    oldDuration_ = duration;
  }
  const u32 before = written_;
  const u32 wanted = buffer_.end - before;
  const i64 written = std::clamp<i64>(file.write(buffer_.data + before, wanted), 0, wanted);
  written_ += static_cast<u32>(written);
  fileEnd_ = fileEnd + written;
  // A scan since may have found other metadata in the file.
  if (metadata_ && head->metadata().get() == metadata_.get() && metadataOffset_ >= before)
    head->setMetadata(metadata_, fileEnd + metadataOffset_ - before);

  const FrameRecord start{oldTagsEnd_, oldDuration_, oldTagsEnd_ + buffer_.firstTagSize()};
  return {start, oldTagsEnd_ + buffer_.end, buffer_.seenFlags(), buffer_.maxTime()};
}

}  // namespace orv::flv
