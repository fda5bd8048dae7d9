#include "server/KTMessage.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <new>

namespace {

constexpr u32 kFirstSize = 256;

// What a block for `length` bytes is made with: a multiple of 4 that is always more.
u32 capacityFor(u32 length) {
  return (length & ~u32{3}) + 4;
}
constexpr u32 kGreatestLength = std::numeric_limits<u32>::max() - 4;  // Whose capacity has 32 bits.

KTMessage* makeMessage(u32 size, KTPoolSide<KTMessage>* pool) {
  return pool ? pool->acquire(size) : new KTMessage(size, nullptr);
}

KTMemoryPtr makeBlock(u32 length) {
  return {capacityFor(length), defaultMemoryPool.load(std::memory_order_acquire)};
}

}  // namespace

std::atomic<KTPoolSide<KTMessage>*> defaultMessagePool{nullptr};

KTMessagePtr::KTMessagePtr()
    : KTPtr(makeMessage(kFirstSize, defaultMessagePool.load(std::memory_order_acquire))) {}

KTMessage::KTMessage(u32 size, KTPoolSide<KTMessage>* owner) : pool(owner) {
  resetPayload(size);
  if (pool) refCount_.increment();
}

i32 KTMessage::release() {
  KTPoolSide<KTMessage>* const owner = pool;  // Behind the decrement the message may be somebody else's.
  const i32 count = owner ? refCount_.decrementPooled() : refCount_.decrement();
  if (count < 1) {
    delete this;
    return 0;
  }
  if (count == 1 && owner) {
    memory = nullptr;
    secondAttachment = nullptr;
    firstAttachment = nullptr;
    ++recycleCount;
    headerFlag = 0;
    owner->recycle(this);
  }
  return count;
}

void KTMessage::resetPayload(u32 size) {
  memory = makeBlock(std::min(size, kGreatestLength));
  memory->length.store(0);
  memory->writeOffset.store(0);
  clearHeader();
  typeBit = 0;
  firstMark = 0;
  secondMark = 0;
}

void KTMessage::setLength(u32 length, bool updateBlock) {
  orv::flv::writeU24(header.length, length);
  if (updateBlock && memory.get()) memory->length.store(static_cast<i32>(length));
}

bool KTMessage::reserve(u32 length) {
  if (!memory.get() || length > kGreatestLength) return false;
  KTMemory& block = *memory;
  const u32 target = capacityFor(length);
  if (target == block.capacity) return true;
  u8* const bytes = new (std::nothrow) u8[target];
  if (!bytes) return false;
  if (block.data) std::memcpy(bytes, block.data, std::min(block.capacity, target));
  if (block.freeFunction) block.freeFunction(block.data);
  block.data = bytes;
  block.capacity = target;
  block.freeFunction = KTMemory::freeArray;
  return true;
}

bool KTMessage::resize(u32 length) {
  if (length > orv::flv::kMaxTagDataSize || !memory.get()) return false;
  if (memory->capacity < length && !reserve(length)) return false;
  setLength(length, true);
  return true;
}

bool KTMessage::append(const void* data, u32 count) {
  const u32 old = length();
  if (count > orv::flv::kMaxTagDataSize || !resize(old + count)) return false;
  if (count) std::memcpy(memory->data + old, data, count);
  return true;
}

bool KTMessage::appendU16(u16 value) {
  const u8 bytes[] = {static_cast<u8>(value >> 8), static_cast<u8>(value)};
  return append(bytes, sizeof bytes);
}

bool KTMessage::appendU32(u32 value) {
  u8 bytes[4];
  orv::flv::writeU32(bytes, value);
  return append(bytes, sizeof bytes);
}

bool KTMessage::appendU64(u64 value) {
  u8 bytes[8];
  orv::flv::writeU32(bytes, static_cast<u32>(value >> 32));
  orv::flv::writeU32(bytes + 4, static_cast<u32>(value));
  return append(bytes, sizeof bytes);
}

KTMessagePtr KTMessage::clone(bool deep) const {
  KTPoolSide<KTMessage>* const source = pool ? pool : defaultMessagePool.load(std::memory_order_acquire);
  KTMessagePtr copy(makeMessage(memory.get() ? memory->capacity : 0, source));
  copy->header = header;
  copy->headerFlag = headerFlag;
  copy->typeBit = typeBit;
  if (!deep) {
    copy->memory = memory;
  } else if (!copy->copyPayload(*this)) {
    return nullptr;
  }
  return copy;
}

bool KTMessage::copyPayload(const KTMessage& source) {
  const u32 count = source.length();
  if (source.payloadSize() < count) return false;
  memory = makeBlock(count);
  if (memory->capacity < count) return false;
  if (count) std::memcpy(memory->data, source.payload(), count);
  memory->length.store(static_cast<i32>(source.blockLength()));
  return true;
}
