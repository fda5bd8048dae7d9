#include "util/KTBuffer.h"

#include <algorithm>
#include <cstring>

#include "util/KTThrowable.h"

namespace {

KTMemory* makeBlock(u32 size, KTPoolSide<KTMemory>* pool) {
  return pool ? pool->acquire(size) : new KTMemory(size, nullptr);
}

u32 bigEndian(const u8* bytes) {
  return u32{bytes[0]} << 24 | u32{bytes[1]} << 16 | u32{bytes[2]} << 8 | bytes[3];
}

}  // namespace

std::atomic<KTPoolSide<KTMemory>*> defaultMemoryPool{nullptr};

KTMemory::KTMemory(u32 size, KTPoolSide<KTMemory>* owner) : pool(owner) {
  allocate(size);
  if (pool) refCount_.increment();
}

KTMemory::~KTMemory() {
  if (freeFunction) freeFunction(data);
}

i32 KTMemory::release() {
  KTPoolSide<KTMemory>* const owner = pool;  // Behind the decrement the block may be somebody else's.
  const i32 count = owner ? refCount_.decrementPooled() : refCount_.decrement();
  if (count < 1) {
    delete this;
    return 0;
  }
  if (count == 1 && owner) {
    ++recycleCount;
    owner->recycle(this);
  }
  return count;
}

void KTMemory::reserve(u32 size) {
  if (size <= capacity) return;
  if (freeFunction) freeFunction(data);
  freeFunction = nullptr;
  data = nullptr;
  capacity = 0;
  allocate(size);
}

void KTMemory::allocate(u32 size) {
  data = new u8[size];
  capacity = size;
  freeFunction = freeArray;
}

KTMemoryPtr::KTMemoryPtr(u32 size, KTPoolSide<KTMemory>* pool) : KTPtr(makeBlock(size, pool)) {}

KTBuffer::KTBuffer(u32 capacity, KTPoolSide<KTMemory>* pool) {
  assign(KTMemoryPtr(capacity, pool), 0, 0);
}

void KTBuffer::assign(const KTMemoryPtr& block, u32 first, u32 last) {
  memory = block;
  data = block.get() ? block->data : nullptr;
  size = block.get() ? block->capacity : 0;
  KT_ASSERT(first <= last && last <= size);
  begin = first;
  end = last;
}

u32 KTBuffer::append(const void* source, u32 count) {
  const u32 room = end < size ? size - end : 0;  // A range that broke its rule has none.
  const u32 fitting = std::min(count, room);
  if (fitting) std::memcpy(data + end, source, fitting);
  end += fitting;
  return fitting;
}

KTBuffer KTBuffer::fromBytes(const u8*& cursor) {
  if (!cursor) return {};
  const u32 length = bigEndian(cursor);
  cursor += 4;
  if (length == 0) return {};
  KTBuffer view(length, nullptr);
  view.append(cursor, length);
  cursor += length;
  return view;
}
