// The settings of a pool, and its counters.

#pragma once

#include "platform/Types.h"

// Sizes are in bytes, an entry's own object included.
struct KTPoolSettings {
  // The thread slot of the caches: one of the first five, and this pool's alone. With any other slot the
  // pool has no caches, and every entry comes from the heap.
  u32 threadSlot = 0;
  u32 maxEntrySize = 0;  // Greater entries come from the heap and go back there. Above 0.
  u32 maxEntries = 0;    // How many entries the pool keeps free; the lesser of the two limits counts.
  u32 maxBytes = 0;      // The same in bytes, by the size of the average entry.
  u32 lowShare = 0;      // In 1024ths of that limit: the batch of a thread that returns more than it takes.
  u32 syncInterval = 0;  // After how many hits a thread hands in its counters.
};

// A number of entries and the sum of their costs.
struct KTPoolTally {
  u64 count = 0;
  u64 bytes = 0;

  void add(u64 cost) { ++count, bytes += cost; }
  void subtract(u64 cost) { --count, bytes -= cost; }
  KTPoolTally& operator+=(const KTPoolTally& other) {
    count += other.count;
    bytes += other.bytes;
    return *this;
  }
  KTPoolTally& operator-=(const KTPoolTally& other) {
    count -= other.count;
    bytes -= other.bytes;
    return *this;
  }
  friend bool operator==(const KTPoolTally&, const KTPoolTally&) = default;
};

// What threads count for themselves and hand in now and then.
struct KTPoolStats {
  KTPoolTally hits;     // Entries that left a thread's list for a caller; bytes as asked for.
  KTPoolTally cached;   // Entries on threads' lists. A thread's own share is a difference, and may wrap.
  KTPoolTally alloc;    // Entries made.
  KTPoolTally destroy;  // Entries destroyed.
  KTPoolTally oversizeAlloc;  // Those of them that were too great to be pooled.
  KTPoolTally oversizeFree;

  KTPoolStats& operator+=(const KTPoolStats& other) {
    hits += other.hits;
    cached += other.cached;
    alloc += other.alloc;
    destroy += other.destroy;
    oversizeAlloc += other.oversizeAlloc;
    oversizeFree += other.oversizeFree;
    return *this;
  }
  friend bool operator==(const KTPoolStats&, const KTPoolStats&) = default;
};

// What the pool counts itself.
struct KTPoolCounters {
  KTPoolStats totals;         // All that threads have handed in.
  KTPoolTally free;           // On the pool's own list.
  KTPoolTally directAlloc;    // Made by threads that have no cache.
  KTPoolTally destroy;        // Destroyed by the pool, and by threads that have no cache.
  KTPoolTally taken;          // Moved from the pool's list to threads.
  KTPoolTally returned;       // Moved back.
  KTPoolTally oversizeAlloc;  // Too great to be pooled, made by threads that have no cache.
  KTPoolTally oversizeFree;
  u32 cacheCount = 0;   // Threads that have a cache.
  u32 averageSize = 0;  // Cost of the average entry that went to a thread.

  friend bool operator==(const KTPoolCounters&, const KTPoolCounters&) = default;
};
