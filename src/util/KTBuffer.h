// Counted blocks of bytes, and views of a part of one.

#pragma once

#include <atomic>

#include "util/KTObject.h"

// The side of a pool that its entries and their makers see. An entry never owns its pool. A pool leaves its
// own count alone while the entry is out: KTAtomicCounter::decrementPooled rests on that.
template <class Entry>
class KTPoolSide {
 public:
  // Returns an entry of at least `size` bytes that only the pool holds: its count is 1.
  virtual Entry* acquire(u32 size) = 0;
  // Takes back an entry whose count has just fallen to 1. Any thread.
  virtual void recycle(Entry* entry) = 0;

 protected:
  ~KTPoolSide() = default;
};

// One block of bytes. `length` may be read and written by any thread; the other fields belong to whoever
// holds the block alone, or to its pool.
class KTMemory : public KTObject {
 public:
  using FreeFunction = void (*)(u8* data);

  // Owns nothing.
  KTMemory() = default;
  // For a pool: the same, with the count that is the pool's own. `reserve` brings bytes.
  explicit KTMemory(KTPoolSide<KTMemory>* owner) : pool(owner) { refCount_.increment(); }
  // With a pool, the block starts with a count of 1, which is the pool's own for the life of the block.
  KTMemory(u32 size, KTPoolSide<KTMemory>* owner);
  ~KTMemory() override;

  // Drops a count. A pooled block that only its pool still holds goes back there; it stays alive, and the
  // result is 1.
  i32 release() override;

  // Makes room for `size` bytes. If there was less, the old bytes are lost; if the allocation fails, the
  // block is left with none.
  void reserve(u32 size);

  // The `freeFunction` of bytes that came from array new.
  static void freeArray(u8* data) { delete[] data; }

  u8* data = nullptr;  // May point into a block that somebody else owns.
  u32 capacity = 0;
  KTAtomicCounter length;  // Bytes that are valid for readers.
  KTAtomicCounter writeOffset;
  KTPoolSide<KTMemory>* pool = nullptr;  // Set once.
  u32 recycleCount = 0;
  KTMemory* nextFree = nullptr;         // The pool's.
  FreeFunction freeFunction = nullptr;  // Null when the block does not own its bytes.

 private:
  void allocate(u32 size);
};

class KTMemoryPtr : public KTPtr<KTMemory> {
 public:
  using KTPtr<KTMemory>::KTPtr;
  KTMemoryPtr() = default;
  // A block from the pool, or a new one of the heap when `pool` is null.
  KTMemoryPtr(u32 size, KTPoolSide<KTMemory>* pool);
};

// The pool that blocks are taken from where nobody names one; null, as at the start, for the heap. Whoever
// installs a pool keeps it alive until the last of its blocks is gone.
extern std::atomic<KTPoolSide<KTMemory>*> defaultMemoryPool;

// The bytes from `begin` to `end` of a block. Filled by append, it is an output buffer and `end` is the
// number of bytes written. Always `begin` <= `end` <= `size`.
class KTBuffer {
 public:
  KTBuffer() = default;
  // An empty view of a block of its own.
  KTBuffer(u32 capacity, KTPoolSide<KTMemory>* pool);

  // `block` may be null, with the range 0, 0.
  void assign(const KTMemoryPtr& block, u32 first, u32 last);

  // Copies what fits behind `end` and returns that number. Never grows the block.
  u32 append(const void* source, u32 count);

  // Copies the bytes at `cursor`, which stand behind their length (32 bits, big-endian) and must all be
  // there, and moves `cursor` behind them. Returns the default view for a null cursor or a length of 0.
  static KTBuffer fromBytes(const u8*& cursor);

  KTMemoryPtr memory;
  u8* data = nullptr;  // The block's, as is `size`.
  u32 size = 0;
  u32 begin = 0;
  u32 end = 0;
};
