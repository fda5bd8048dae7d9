// Messages: FLV tags in memory, the 11 header bytes in their file form and the payload in a counted block.
//
// Counts and a block's `length` may be touched by any thread; all else belongs to whoever owns the message. A
// payload may come from a file: every look at its bytes is bounded by the block as well as by the header.

#pragma once

#include <array>

#include "server/FLVTag.h"
#include "util/KTBuffer.h"

class KTMessage;
class KTThreadOnlyMutex;

namespace orv {

// Counts the messages of each type.
class MessageTypeCounts {
 public:
  static constexpr u32 kTypes = 24;

  // Returns the new count; 0 for a type without a counter, 24 or above without bit 0x40.
  u64 increment(u8 type);
  u64 count(u8 type) const { return type < kTypes ? counts_[type] : 0; }
  void clear() { counts_.fill(0); }
  void add(const MessageTypeCounts& other);

 private:
  std::array<u64, kTypes> counts_{};
};

// The virtual operations stand behind those of KTObject in the order given here.
class Message : public KTObject, private util::hidden::Noncopyable {
 public:
  // A tag header as it stands in a file; copied in or out as one block.
  struct Header {
    u8 typeByte;
    u8 length[3];
    u8 timeBytes[4];
    u8 streamId[3];
  };
  static_assert(sizeof(Header) == flv::kTagHeaderSize);

  // Milliseconds; of a composite, those of its last entry.
  virtual u32 lastTime() const { return time(); }
  virtual bool isKeyFrame() const = 0;
  virtual bool isNonPicture() const = 0;
  virtual bool isDisposableFrame() const = 0;
  // Adds what the message is, or holds, to `counts`.
  virtual void countTypes(MessageTypeCounts& counts) const = 0;

  u8 type() const { return header.typeByte & flv::kTypeMask; }
  // Sets the type; the other bits of the type byte stay.
  void setType(u8 type) {
    header.typeByte = static_cast<u8>((header.typeByte & ~flv::kTypeMask) | (type & flv::kTypeMask));
  }
  // Moves the filter bit out of the type byte into `typeBit`.
  void takeTypeBit();

  u32 length() const { return flv::readU24(header.length); }
  u32 time() const { return tag().time(); }
  u32 streamId() const { return flv::readU24(header.streamId); }
  const u8* headerBytes() const { return &header.typeByte; }

  // Returns the block's own length; 0 without a block.
  u32 blockLength() const { return memory.get() ? static_cast<u32>(memory->length.read()) : 0; }
  // Return the payload's bytes, null without a block, and how many of them there really are.
  const u8* payload() const { return memory.get() ? memory->data : nullptr; }
  u32 payloadSize() const;

  // Bit f for the sound format f that an audio payload's first byte names.
  static u16 audioFormatBit(u8 firstByte) { return static_cast<u16>(1U << flv::soundFormatOf(firstByte)); }

  Header header;
  KTMemoryPtr memory;  // The payload.
  u8 headerFlag = 0;
  u8 typeBit = 0;

 protected:
  // The header is left for the subclass to fill.
  Message() = default;

  void clearHeader();
  void setHeaderTime(u32 time);
  u8 firstPayloadByte() const { return payloadSize() ? memory->data[0] : 0; }

 private:
  flv::TagHeader tag() const { return {headerBytes()}; }
};

// One tag.
class SingleMessage : public Message {
 public:
  SingleMessage();
  ~SingleMessage() override = default;

  bool isKeyFrame() const override { return isVideoFrame(flv::kFrameTypeKey); }
  // Returns true for a video frame that only carries a command, and for everything that isn't video.
  bool isNonPicture() const override {
    return type() != flv::kTypeVideo || isVideoFrame(flv::kFrameTypeInfo);
  }
  bool isDisposableFrame() const override { return isVideoFrame(flv::kFrameTypeDisposable); }
  void countTypes(MessageTypeCounts& counts) const override { counts.increment(type()); }

  KTMessage* nextFree = nullptr;  // The pool's.
  KTObjectPtr firstAttachment;    // Rides with the message.
  u8 firstMark = 0;
  KTThreadOnlyMutex* const lock;  // One of 250 that all messages share; not owned.
  u8 secondMark = 0;
  KTObjectPtr secondAttachment;

 private:
  bool isVideoFrame(u8 frameType) const {
    return type() == flv::kTypeVideo && flv::frameTypeOf(firstPayloadByte()) == frameType;
  }
};

class SingleMessagePtr : public KTPtr<SingleMessage> {
 public:
  using KTPtr<SingleMessage>::KTPtr;
};

}  // namespace orv
