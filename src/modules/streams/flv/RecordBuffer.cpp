#include "modules/streams/flv/RecordBuffer.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "server/FLVTag.h"
#include "util/KTThrowable.h"
#include "util/WarmBlocks.h"

namespace orv::flv {
namespace {

// The most memory that a new block asks for ahead of its need.
constexpr u32 kMaxRoomAhead = 0x1000000;

// A block in warm memory that may be larger than it shows.
class StagingMemory : public KTMemory {
 public:
  StagingMemory(u32 shown, u32 room) {
    data = util::WarmBlocks::take(room);
    capacity = shown;
    freeFunction = [](u8* bytes) { util::WarmBlocks::give(bytes); };
  }
};

}  // namespace

void RecordBuffer::restart(u32 room) {
  room_ = std::clamp(room, kInitialCapacity, kMaxRoomAhead);
  assign(KTMemoryPtr(new StagingMemory(kInitialCapacity, room_)), 0, 0);
}

bool RecordBuffer::appendTag(u8 type, const void* payload, u32 payloadSize, u32 time) {
  const u64 need = u64{payloadSize} + kTagOverhead;
  if (payloadSize > kMaxTagDataSize || (!payload && payloadSize > 0) || !makeRoom(need)) return false;
  noteKind(type, payloadSize);
  maxTime_ = std::max(maxTime_, time);
  if (end == 0) firstTagSize_ = static_cast<u32>(need);

  u8* const tag = data + end;
  writeTagHeader(tag, type, payloadSize, time);
  if (payloadSize > 0) std::memcpy(tag + kTagHeaderSize, payload, payloadSize);
  writeU32(tag + kTagHeaderSize + payloadSize, payloadSize + kTagHeaderSize);
  end += static_cast<u32>(need);
  return true;
}

bool RecordBuffer::makeRoom(u64 need) {
  while (need > size - end) {
    if (!doubleBlock()) return false;
  }
  return true;
}

bool RecordBuffer::doubleBlock() {
  const u32 doubled = size * 2;
  if (doubled <= size) return false;
  KTMemoryPtr block = memory;
  if (doubled <= room_) {
    block->capacity = doubled;
  } else {
    try {
      block = KTMemoryPtr(new StagingMemory(doubled, doubled));
    } catch (const std::bad_alloc&) {
      return false;
    }
    std::memcpy(block->data, data, end);
    room_ = doubled;
  }
  assign(block, 0, end);
  return true;
}

void RecordBuffer::noteKind(u8 type, u32 payloadSize) {
  switch (type & kTypeMask) {
    case kTypeVideo:
      seenFlags_ |= kSeenVideo;
      break;
    case kTypeAudio:
      if (payloadSize > 0) seenFlags_ |= kSeenAudio;
      break;
    default:
      seenFlags_ |= kSeenOther;
  }
}

}  // namespace orv::flv
