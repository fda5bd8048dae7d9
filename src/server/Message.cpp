#include "server/Message.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/Fork.h"
#include "util/KTThreadOnlyMutex.h"

namespace orv {

namespace {

constexpr u8 kCounterMask = 0xBF;

struct SharedLock : KTThreadOnlyMutex {
  SharedLock() : KTThreadOnlyMutex(true) {}
  const platform::HeldOverForks held{*nativeHandle(), platform::HeldOverForks::kProcess};
};

constexpr u32 kSharedLocks = 250;
SharedLock sharedLocks[kSharedLocks];
std::atomic<u32> locksGiven{0};

// No read-modify-write: an increment that is lost only changes which lock a message gets.
KTThreadOnlyMutex* nextSharedLock() {
  const u32 given = locksGiven.load(std::memory_order_relaxed);
  locksGiven.store(given + 1, std::memory_order_relaxed);
  return &sharedLocks[given % kSharedLocks];
}

}  // namespace

u64 MessageTypeCounts::increment(u8 type) {
  const u8 counter = type & kCounterMask;
  return counter < kTypes ? ++counts_[counter] : 0;
}

void MessageTypeCounts::add(const MessageTypeCounts& other) {
  for (u32 type = 0; type < kTypes; ++type) counts_[type] += other.counts_[type];
}

void Message::takeTypeBit() {
  typeBit = (header.typeByte & flv::kFilterBit) != 0;
  header.typeByte = static_cast<u8>(header.typeByte & ~flv::kFilterBit);
}

u32 Message::payloadSize() const {
  return memory.get() ? std::min(length(), memory->capacity) : 0;
}

void Message::clearHeader() {
  std::memset(&header, 0, sizeof header);
}

void Message::setHeaderTime(u32 time) {
  flv::writeU24(header.timeBytes, time & 0xFFFFFF);
  header.timeBytes[3] = static_cast<u8>(time >> 24);
}

SingleMessage::SingleMessage() : lock(nextSharedLock()) {}

}  // namespace orv
