#include "host/flv/MediaHead.h"

namespace orv::host {

namespace {

constexpr u8 kOneTrack = 0;

// Reads bytes in order. After the first one that isn't there, all are 0 and ended() is true.
class PayloadBytes {
 public:
  explicit PayloadBytes(const Tag& tag)
      : data_(tag.front().data()), size_(static_cast<u32>(tag.front().size())) {}

  u32 number(u32 bytes) {
    u32 value = 0;
    while (bytes-- > 0) value = value << 8 | next();
    return value;
  }
  void skip(u32 bytes) {
    ended_ = ended_ || bytes > size_ - at_;
    if (!ended_) at_ += bytes;
  }
  bool ended() const { return ended_; }
  u32 position() const { return at_; }

 private:
  u8 next() {
    ended_ = ended_ || at_ == size_;
    return ended_ ? u8{0} : data_[at_++];
  }

  const u8* const data_;
  const u32 size_;
  u32 at_ = 0;
  bool ended_ = false;
};

// A signed number of 24 bits.
i32 signed24(u32 bits) {
  return static_cast<i32>(bits << 8) >> 8;
}

// The codecs that show pictures in another order than they decode them.
bool hasCompositionTime(CodecId videoCodec) {
  switch (videoCodec) {
    case kAvc:
    case kHevc:
    case kExtendedAvc:
    case kExtendedHevc:
    case kExtendedVvc:
      return true;
    default:
      return false;
  }
}

// 0 where the payload ends before it.
i32 readCompositionTime(PayloadBytes& bytes) {
  const i32 time = signed24(bytes.number(3));
  return bytes.ended() ? 0 : time;
}

void readClassic(PayloadBytes& bytes, MediaHead& head) {
  head.packet = Packet::frames;
  if (head.isVideo ? !hasCompositionTime(*head.codec) : *head.codec != kAac) return;
  const u32 type = bytes.number(1);
  head.packet = bytes.ended()                          ? Packet::unknown
                : type == kSequenceStart               ? Packet::setup
                : type == kCodedFrames                 ? Packet::frames
                : type == kSequenceEnd && head.isVideo ? Packet::end
                                                       : Packet::unknown;
  if (head.isVideo && head.packet == Packet::frames) head.compositionTime = readCompositionTime(bytes);
}

// Modifiers refine the packet type that follows them; none of them changes what is read here.
u8 skipModifiers(PayloadBytes& bytes, u8 packetType) {
  while (packetType == kModifier && !bytes.ended()) {
    u32 size = bytes.number(1) + 1;
    if (size == 256) size = bytes.number(2) + 1;
    bytes.skip(size);
    packetType = packetTypeOf(bytes.number(1));
  }
  return packetType;
}

Packet extendedPacket(bool isVideo, u8 type) {
  switch (type) {
    case kSequenceStart:
      return Packet::setup;
    case kCodedFrames:
      return Packet::frames;
    case kSequenceEnd:
      return Packet::end;
    case kMetadata:
      return Packet::information;
    case kCodedFramesX:
      return isVideo ? Packet::frames : Packet::unknown;
    case kTransportSequenceStart:
      return isVideo ? Packet::setup : Packet::unknown;
    default:
      return Packet::unknown;
  }
}

void readExtended(PayloadBytes& bytes, u8 packetType, MediaHead& head) {
  head.isExtended = true;
  packetType = skipModifiers(bytes, packetType);
  head.isMultitrack = packetType == (head.isVideo ? kVideoMultitrack : kAudioMultitrack);
  u8 tracks = kOneTrack;
  if (head.isMultitrack) {
    const u32 types = bytes.number(1);
    tracks = static_cast<u8>(types >> 4);
    packetType = packetTypeOf(types);
  }
  const CodecId codec = bytes.number(4);
  if (bytes.ended()) return;
  head.codec = codec;
  head.packet = extendedPacket(head.isVideo, packetType);
  if (head.isMultitrack) bytes.skip(tracks == kOneTrack ? 1 : 4);  // The track's number, and its size.
  if (head.isVideo && packetType == kCodedFrames && hasCompositionTime(codec)) {
    head.compositionTime = readCompositionTime(bytes);
  }
}

void readVideo(PayloadBytes& bytes, u8 first, MediaHead& head) {
  const bool isExtended = (flv::frameTypeOf(first) & flv::kExtendedVideo) != 0;
  const u8 frameType = flv::frameTypeOf(first) & static_cast<u8>(~flv::kExtendedVideo);
  if (!isExtended) head.codec = flv::videoCodecOf(first);
  if (frameType == flv::kFrameTypeInfo) {
    head.isExtended = isExtended;
    head.packet = Packet::command;
    return;
  }
  if (isExtended) {
    readExtended(bytes, packetTypeOf(first), head);
  } else {
    readClassic(bytes, head);
  }
  head.hasKeyMark = frameType == flv::kFrameTypeKey;
  head.isKeyFrame = head.hasKeyMark && head.packet == Packet::frames;
}

void readAudio(PayloadBytes& bytes, u8 first, MediaHead& head) {
  const u8 format = flv::soundFormatOf(first);
  if (format == flv::kSoundFormatExtended) return readExtended(bytes, packetTypeOf(first), head);
  head.codec = format;
  readClassic(bytes, head);
}

}  // namespace

bool MediaHead::needsSetup() const {
  if (!codec) return false;
  if (isVideo) return hasCompositionTime(*codec) || *codec == kAv1;
  return *codec == kAac || *codec == kExtendedAac;
}

std::optional<MediaHead> mediaHead(const Tag& tag) {
  if (tag.size == 0 || tag.isEncrypted() || (!tag.isAudio() && !tag.isVideo())) return std::nullopt;
  MediaHead head;
  head.isVideo = tag.isVideo();
  PayloadBytes bytes(tag);
  const u8 first = static_cast<u8>(bytes.number(1));
  if (head.isVideo) {
    readVideo(bytes, first, head);
  } else {
    readAudio(bytes, first, head);
  }
  head.size = bytes.position();
  return head;
}

}  // namespace orv::host
