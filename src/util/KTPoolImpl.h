// The operations of KTPool, for KTPool.h.

#pragma once

#include "util/KTPool.h"

template <class Entry>
KTPool<Entry>::KTPool(const KTPoolSettings& settings) : settings_(settings) {
  KT_ASSERT(settings.maxEntrySize > 0 && settings.threadSlot <= kSlotPoolCacheLast);
  updateMarks();
}

template <class Entry>
KTPool<Entry>::~KTPool() {
  if (settings_.threadSlot <= kSlotPoolCacheLast) {
    const auto* const mine = static_cast<const KTPoolCacheBase*>(slotGet(settings_.threadSlot));
    if (mine && mine->belongsTo(this)) slotSet(settings_.threadSlot, nullptr, nullptr);
  }
  slotsCollect();
  while (caches_) takeBackFrom(*static_cast<KTPoolCache<Entry>*>(caches_));
  while (!free_.empty()) destroyOldest();
}

// From a thread that lives on: what it keeps for this pool is of no more use.
template <class Entry>
void KTPool<Entry>::takeBackFrom(KTPoolCache<Entry>& cache) {
  cache.takeOver();
  cacheGone(cache);
  cache.moveAllTo(free_);
  cache.forgetPool();
}

template <class Entry>
Entry* KTPool<Entry>::acquire(u32 size) {
  auto* const cache = threadCache();
  if (!cache) return acquireDirectly(size);
  return cache->acquire(size, lowMark(), highMark(), settings_.syncInterval);
}

template <class Entry>
void KTPool<Entry>::recycle(Entry* entry) {
  auto* const cache = threadCache();
  if (!cache) return destroyDirectly(entry);
  cache->recycle(entry, highMark(), settings_.syncInterval);
}

template <class Entry>
Entry* KTPool<Entry>::acquireDirectly(u32 size) {
  Entry* const entry = Traits::make(this);
  try {
    Traits::prepare(*entry, size);
  } catch (...) {
    entry->release();
    throw;
  }
  const u64 cost = Traits::cost(*entry);
  const KTMutexGuard guard(mutex_);
  counters_.directAlloc.add(cost);
  if (cost > settings_.maxEntrySize) counters_.oversizeAlloc.add(cost);
  return entry;
}

template <class Entry>
void KTPool<Entry>::destroyDirectly(Entry* entry) {
  const u64 cost = Traits::cost(*entry);
  entry->release();
  const KTMutexGuard guard(mutex_);
  counters_.destroy.add(cost);
  if (cost > settings_.maxEntrySize) counters_.oversizeFree.add(cost);
}

template <class Entry>
KTPoolCache<Entry>* KTPool<Entry>::threadCache() {
  if (settings_.threadSlot > kSlotPoolCacheLast) return nullptr;  // What is there is no cache.
  void* const found = slotGet(settings_.threadSlot);
  if (!found) return makeThreadCache();
  auto* const base = static_cast<KTPoolCacheBase*>(found);
  return base->belongsTo(this) ? static_cast<KTPoolCache<Entry>*>(base) : nullptr;
}

template <class Entry>
KTPoolCache<Entry>* KTPool<Entry>::makeThreadCache() {
  auto* const made = new (std::nothrow) KTPoolCache<Entry>(*this);
  if (!made) return nullptr;
  KTPoolCacheBase* const base = made;
  if (slotSet(settings_.threadSlot, base, dropCache) && slotGet(settings_.threadSlot) == base) return made;
  delete made;
  return nullptr;
}

template <class Entry>
u64 KTPool<Entry>::takeBatch(u32 count, KTPoolCache<Entry>& cache, KTPoolStats& stats) {
  const KTMutexGuard guard(mutex_);
  merge(stats);
  KTPoolTally moved;
  while (moved.count < count && !free_.empty()) {
    Entry* const entry = free_.pop();
    const u64 cost = Traits::cost(*entry);
    moved.add(cost);
    cache.put(entry, cost);
  }
  counters_.free -= moved;
  counters_.totals.cached += moved;
  counters_.taken += moved;
  return moved.count;
}

template <class Entry>
u64 KTPool<Entry>::giveBack(KTPoolCache<Entry>& cache, KTPoolStats& stats) {
  const KTMutexGuard guard(mutex_);
  merge(stats);
  const KTPoolTally moved = cache.moveAllTo(free_);
  counters_.totals.cached -= moved;
  counters_.returned += moved;
  counters_.free += moved;
  return moved.count;
}

template <class Entry>
void KTPool<Entry>::sync(KTPoolStats& stats) {
  const KTMutexGuard guard(mutex_);
  merge(stats);
}

template <class Entry>
void KTPool<Entry>::merge(KTPoolStats& stats) {
  counters_.totals += stats;
  stats = {};
  updateMarks();
}

template <class Entry>
void KTPool<Entry>::updateMarks() {
  const KTPoolTally& taken = counters_.taken;
  const u64 average = taken.count > 0 ? taken.bytes / taken.count : 0;
  counters_.averageSize = average > 0 ? static_cast<u32>(average) : std::max(settings_.maxEntrySize, 1u);
  const u32 limit = std::min(settings_.maxEntries, settings_.maxBytes / counters_.averageSize);
  const u32 threads = std::max(counters_.cacheCount, 1u);
  lowMark_.store((settings_.lowShare * limit >> 10) / threads, std::memory_order_relaxed);
  highMark_.store(limit / threads, std::memory_order_relaxed);
  while (counters_.free.count > limit) destroyOldest();
}

template <class Entry>
void KTPool<Entry>::destroyOldest() {
  Entry* const entry = free_.pop();
  const u64 cost = Traits::cost(*entry);
  counters_.free.subtract(cost);
  counters_.destroy.add(cost);
  entry->release();
}

template <class Entry>
void KTPool<Entry>::cacheMade(KTPoolCache<Entry>& cache) {
  const KTMutexGuard guard(mutex_);
  ++counters_.cacheCount;
  cache.nextOfPool = std::exchange(caches_, &cache);
}

template <class Entry>
void KTPool<Entry>::cacheGone(KTPoolCache<Entry>& cache) {
  const KTMutexGuard guard(mutex_);
  --counters_.cacheCount;
  KTPoolCacheBase** place = &caches_;
  while (*place != &cache) place = &(*place)->nextOfPool;
  *place = cache.nextOfPool;
}

template <class Entry>
KTPoolCounters KTPool<Entry>::counters() {
  const KTMutexGuard guard(mutex_);
  return counters_;
}
