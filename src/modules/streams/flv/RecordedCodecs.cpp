#include "modules/streams/flv/RecordedCodecs.h"

#include <utility>

#include "server/FLVTag.h"

namespace orv::flv {
namespace {

// In an extended header a packet type stands where the codec's number was. Of these types and the higher ones
// the codec's FourCC doesn't follow directly.
constexpr u8 kVideoMultitrack = 6;
constexpr u8 kAudioMultitrack = 5;

u8 highNibble(u8 byte) {
  return byte >> 4;
}
u8 lowNibble(u8 byte) {
  return byte & 0x0F;
}

// 0 where no FourCC follows the first byte.
u32 fourCcOf(const RecordedMessage& message, u8 firstWithout) {
  return message.size > 4 && lowNibble(message.data[0]) < firstWithout ? readU32(message.data + 1) : 0;
}

}  // namespace

bool RecordedCodecs::checkCodec(const RecordedMessage& message, const Warn& warn) {
  if (message.size == 0 || takesAll_) return true;
  const u8 first = message.data[0];
  if (message.type == kTypeVideo && lowNibble(first) == kVideoCodecH264) {
    if (std::exchange(warnH264_, false)) warn(u"Recording H264 to FLV is unsupported, tried in FLV : %S");
    return false;
  }
  if (message.type == kTypeAudio && highNibble(first) == kSoundFormatAac) {
    if (std::exchange(warnAAC_, false)) warn(u"Recording AAC to FLV is unsupported, tried in FLV : %S");
    return false;
  }
  return true;
}

// Extended headers are looked for only where all codecs are taken.
void RecordedCodecs::note(const RecordedMessage& message) {
  if (message.size == 0) return;
  const u8 high = highNibble(message.data[0]), low = lowNibble(message.data[0]);
  if (message.type == kTypeVideo) {
    const bool extended = takesAll_ && (high & kExtendedVideo);
    if (videoCodec_ == 0) videoCodec_ = extended ? fourCcOf(message, kVideoMultitrack) : low;
    lastVideoKey_ = (extended ? high & ~kExtendedVideo : high) == kFrameTypeKey;
  } else if (message.type == kTypeAudio && audioCodec_ == 0) {
    const bool extended = takesAll_ && high == kSoundFormatExtended;
    audioCodec_ = extended ? fourCcOf(message, kAudioMultitrack) : high;
  }
}

}  // namespace orv::flv
