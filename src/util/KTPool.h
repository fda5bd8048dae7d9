// The recycler of blocks and messages: a free list under a mutex, and in front of it one for each thread that
// needs none.
//
// An entry is with its users, on one thread's list or on the pool's. The pool holds one count of it for all
// its life, so that it comes home when its count falls to 1, on whatever thread that happens. Threads
// exchange entries with the pool in batches, which follow from what the pool has handed out. What a thread
// keeps comes home when its slots are torn down; where it ends without that, some later thread does it.

#pragma once

#include <algorithm>
#include <atomic>
#include <boost/noncopyable.hpp>
#include <limits>
#include <new>
#include <utility>

#include "platform/Fork.h"
#include "util/KTBuffer.h"
#include "util/KTPoolQueue.h"
#include "util/KTPoolStats.h"
#include "util/KTThreadOnlyMutex.h"
#include "util/ThreadSlots.h"

// What a pool must know of its entries; specialised beside each class that can be pooled. `make` returns an
// entry with a count of 1 and no bytes; `prepare` makes a new or a free entry fit for a request of `size`
// bytes. Both may throw.
template <class Entry>
struct KTPoolTraits;

template <>
struct KTPoolTraits<KTMemory> {
  static constexpr u32 kHitOverhead = sizeof(KTMemory);  // What a hit counts beside the size asked for.

  static KTMemory* make(KTPoolSide<KTMemory>* pool) { return new KTMemory(pool); }
  static u64 cost(const KTMemory& block) { return u64{block.capacity} + sizeof(KTMemory); }
  static void prepare(KTMemory& block, u32 size) {
    block.length.restart();
    block.writeOffset.restart();
    if (size > block.capacity) block.reserve(size);
  }
};

template <class Entry>
class KTPool;

// What a thread slot of pools leads to, whatever their entries are.
class KTPoolCacheBase {
 public:
  explicit KTPoolCacheBase(void* pool) : pool_(pool) {}
  bool belongsTo(const void* pool) const { return pool_.load(std::memory_order_relaxed) == pool; }

  // For the pool, under its mutex.
  KTPoolCacheBase* nextOfPool = nullptr;

 protected:
  std::atomic<void*> pool_;  // Null when the pool has gone first.
};

// One thread's share of a pool. Only its thread touches it. On cache lines of its own.
template <class Entry>
class alignas(64) KTPoolCache : public KTPoolCacheBase, private boost::noncopyable {
 public:
  explicit KTPoolCache(KTPool<Entry>& pool);
  // Gives all entries back to the pool.
  ~KTPoolCache();

  // The marks are the pool's, as the caller has read them.
  Entry* acquire(u32 size, u32 lowMark, u32 highMark, u32 syncInterval);
  void recycle(Entry* entry, u32 highMark, u32 syncInterval);

  // For the pool, which keeps the books for what it moves.
  void put(Entry* entry, u64 cost);
  KTPoolTally moveAllTo(KTPoolQueue<Entry>& queue);
  void forgetPool() { pool_.store(nullptr, std::memory_order_release); }
  // Shows the caller what the cache's thread has done, which must have ended.
  void takeOver() const { static_cast<void>(outstanding_.load(std::memory_order_acquire)); }

  u64 count() const { return held_.count; }
  i32 outstanding() const { return outstanding_.load(std::memory_order_relaxed); }
  // What the thread has counted since it last handed its counters in.
  const KTPoolStats& stats() const { return stats_; }

 private:
  using Traits = KTPoolTraits<Entry>;

  KTPool<Entry>& pool() const { return *static_cast<KTPool<Entry>*>(pool_.load(std::memory_order_relaxed)); }
  [[gnu::always_inline]] inline Entry* hit(u32 size);
  void keep(Entry* entry);
  void countOut();
  void countIn();

  // Off the hit path, and kept out of its code.
  [[gnu::noinline]] Entry* makeOversize(u32 size);
  [[gnu::noinline]] void destroyOversize(Entry* entry);
  [[gnu::noinline]] Entry* refill(u32 size, u32 lowMark, u32 highMark);
  Entry* makeEntries(u32 size, u32 number);

  KTPoolStats& handIn();

  KTPoolQueue<Entry> queue_;
  KTPoolTally held_;  // What is in the queue,
  KTPoolTally told_;  // and how much of it the pool knows of.
  // Taken less given back: negative on a thread that mostly releases. Stops at its ends. Stored last in each
  // operation, for whoever takes the cache over.
  std::atomic<i32> outstanding_{0};
  KTPoolStats stats_;  // Since they were last handed in.
};

// Any thread may use it. It must outlive its entries, and all use by other threads.
template <class Entry>
class KTPool final : public KTPoolSide<Entry>, private boost::noncopyable {
 public:
  explicit KTPool(const KTPoolSettings& settings);
  ~KTPool();

  // Returns an entry for at least `size` bytes that only the pool holds. Throws std::bad_alloc; entries made
  // before that stay with the thread.
  Entry* acquire(u32 size) override;
  void recycle(Entry* entry) override;

  const KTPoolSettings& settings() const { return settings_; }
  u32 lowMark() const { return lowMark_.load(std::memory_order_relaxed); }
  u32 highMark() const { return highMark_.load(std::memory_order_relaxed); }
  KTPoolCounters counters();

  // Returns the calling thread's cache, made at first need; null if there is no room for it or another pool
  // has the slot. Such a thread goes to the heap.
  KTPoolCache<Entry>* threadCache();

  // Exchange entries between a thread and the pool. Each hands in the thread's counters first, and returns
  // the number of entries moved.
  u64 takeBatch(u32 count, KTPoolCache<Entry>& cache, KTPoolStats& stats);
  u64 giveBack(KTPoolCache<Entry>& cache, KTPoolStats& stats);
  void sync(KTPoolStats& stats);

  void cacheMade(KTPoolCache<Entry>& cache);
  void cacheGone(KTPoolCache<Entry>& cache);

 private:
  using Traits = KTPoolTraits<Entry>;

  // Off the hit path, and kept out of its code.
  [[gnu::noinline]] KTPoolCache<Entry>* makeThreadCache();
  [[gnu::noinline]] Entry* acquireDirectly(u32 size);
  [[gnu::noinline]] void destroyDirectly(Entry* entry);

  void takeBackFrom(KTPoolCache<Entry>& cache);
  void merge(KTPoolStats& stats);
  void updateMarks();
  void destroyOldest();
  static void dropCache(void* cache) {
    delete static_cast<KTPoolCache<Entry>*>(static_cast<KTPoolCacheBase*>(cache));
  }

  const KTPoolSettings settings_;
  // Read without the mutex: an old value only shifts a batch. Written under it.
  std::atomic<u32> lowMark_{0};   // The batch of a thread with nothing outstanding.
  std::atomic<u32> highMark_{0};  // The most entries that a thread keeps.

  // On another cache line than what every thread reads.
  alignas(64) KTThreadOnlyMutex mutex_{false};
  KTPoolQueue<Entry> free_;  // Under mutex_, as is what follows.
  KTPoolCounters counters_;
  KTPoolCacheBase* caches_ = nullptr;
  const orv::platform::HeldOverForks held_{*mutex_.nativeHandle()};
};

#include "util/KTPoolCacheImpl.h"
#include "util/KTPoolImpl.h"
