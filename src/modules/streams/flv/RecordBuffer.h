// The tags recorded since the last flush, as they will stand in the file.

#pragma once

#include "util/KTBuffer.h"

namespace orv::flv {

// Kinds of tag, as in the file header's flags byte. The last one is none of the published flags; it
// stays in the file all the same and reaches the host by getType.
inline constexpr u8 kSeenVideo = 1;
inline constexpr u8 kSeenAudio = 4;  // With a payload.
inline constexpr u8 kSeenOther = 8;

// An output buffer that grows by doubling. Used under the stream's lock.
class RecordBuffer : public KTBuffer {
 public:
  static constexpr u32 kInitialCapacity = 32768;

  // Takes a block of the initial capacity, empty. The memory behind it reaches as far as `room`, within
  // bounds, and has been touched before: growing into it costs neither pages nor a copy. Throws
  // std::bad_alloc; the buffer is without a block then.
  void restart(u32 room);
  // Appends one whole tag; copies the payload. False, with nothing changed, if there is no room to be had or
  // the payload doesn't fit the 24 bits of a tag's size.
  bool appendTag(u8 type, const void* data, u32 size, u32 time);

  u8 seenFlags() const { return seenFlags_; }
  u32 maxTime() const { return maxTime_; }            // 0 when empty.
  u32 firstTagSize() const { return firstTagSize_; }  // Payload and 15.

 private:
  bool makeRoom(u64 need);
  bool doubleBlock();
  void noteKind(u8 type, u32 size);

  u8 seenFlags_ = 0;
  u32 maxTime_ = 0;
  u32 firstTagSize_ = 0;
  u32 room_ = 0;  // Bytes of memory behind the block, of which its capacity shows a part.
};

}  // namespace orv::flv
