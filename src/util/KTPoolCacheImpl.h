// The operations of KTPoolCache, for KTPool.h.

#pragma once

#include "util/KTPool.h"

template <class Entry>
KTPoolCache<Entry>::KTPoolCache(KTPool<Entry>& pool) : KTPoolCacheBase(&pool) {
  pool.cacheMade(*this);
}

template <class Entry>
KTPoolCache<Entry>::~KTPoolCache() {
  takeOver();
  if (belongsTo(nullptr)) return;
  pool().cacheGone(*this);
  pool().giveBack(*this, handIn());
}

template <class Entry>
Entry* KTPoolCache<Entry>::acquire(u32 size, u32 lowMark, u32 highMark, u32 syncInterval) {
  if (size > pool().settings().maxEntrySize) return makeOversize(size);
  if (queue_.empty()) return refill(size, lowMark, highMark);
  Entry* const entry = hit(size);
  if (stats_.hits.count > syncInterval) pool().sync(handIn());
  countOut();
  return entry;
}

// The list is empty: gets entries from the pool, else makes some, and takes one.
template <class Entry>
Entry* KTPoolCache<Entry>::refill(u32 size, u32 lowMark, u32 highMark) {
  const i64 outstanding = i64{this->outstanding()} + 1;  // This one is asked for.
  const i64 want = outstanding > 0 ? 2 * outstanding : lowMark;
  const u32 batch = static_cast<u32>(std::min<i64>(want, highMark));
  pool().takeBatch(batch, *this, handIn());
  Entry* const entry = queue_.empty() ? makeEntries(size, std::max(batch, 1u)) : hit(size);
  countOut();
  return entry;
}

template <class Entry>
void KTPoolCache<Entry>::recycle(Entry* entry, u32 highMark, u32 syncInterval) {
  if (Traits::cost(*entry) > pool().settings().maxEntrySize) return destroyOversize(entry);
  keep(entry);
  if (held_.count > highMark) {
    pool().giveBack(*this, handIn());
  } else if (stats_.hits.count > syncInterval) {
    pool().sync(handIn());
  }
  countIn();
}

template <class Entry>
Entry* KTPoolCache<Entry>::makeOversize(u32 size) {
  Entry* const entry = makeEntries(size, 1);
  stats_.oversizeAlloc.add(Traits::cost(*entry));
  outstanding_.store(outstanding(), std::memory_order_release);
  return entry;
}

template <class Entry>
void KTPoolCache<Entry>::countOut() {
  const i32 now = outstanding();
  outstanding_.store(now + (now < std::numeric_limits<i32>::max()), std::memory_order_release);
}

template <class Entry>
void KTPoolCache<Entry>::countIn() {
  const i32 now = outstanding();
  outstanding_.store(now - (now > std::numeric_limits<i32>::min()), std::memory_order_release);
}

template <class Entry>
void KTPoolCache<Entry>::destroyOversize(Entry* entry) {
  const u64 cost = Traits::cost(*entry);
  stats_.oversizeFree.add(cost);
  stats_.destroy.add(cost);
  entry->release();
  outstanding_.store(outstanding(), std::memory_order_release);
}

// Returns the last one and keeps the others. All objects are made before the first gets its bytes: they lie
// side by side, and a walk along a list of them touches few pages.
template <class Entry>
Entry* KTPoolCache<Entry>::makeEntries(u32 size, u32 number) {
  KTPoolQueue<Entry> bare;
  try {
    for (u32 left = number; left > 0; --left) bare.append(Traits::make(&pool()));
    for (;;) {
      Traits::prepare(*bare.front(), size);
      Entry* const entry = bare.pop();
      stats_.alloc.add(Traits::cost(*entry));
      if (bare.empty()) return entry;
      keep(entry);
    }
  } catch (...) {
    while (!bare.empty()) bare.pop()->release();
    throw;
  }
}

// An entry that can't be prepared stays at the front, with whatever it has left.
template <class Entry>
Entry* KTPoolCache<Entry>::hit(u32 size) {
  Entry& entry = *queue_.front();
  held_.bytes -= Traits::cost(entry);
  try {
    Traits::prepare(entry, size);
  } catch (...) {
    held_.bytes += Traits::cost(entry);
    throw;
  }
  --held_.count;
  stats_.hits.add(u64{size} + Traits::kHitOverhead);
  return queue_.pop();
}

template <class Entry>
void KTPoolCache<Entry>::keep(Entry* entry) {
  queue_.append(entry);
  held_.add(Traits::cost(*entry));
}

template <class Entry>
void KTPoolCache<Entry>::put(Entry* entry, u64 cost) {
  queue_.append(entry);
  held_.add(cost);
  told_.add(cost);
}

template <class Entry>
KTPoolTally KTPoolCache<Entry>::moveAllTo(KTPoolQueue<Entry>& queue) {
  queue.append(std::move(queue_));
  told_ = {};
  return std::exchange(held_, {});
}

// The counters as the pool is to have them.
template <class Entry>
KTPoolStats& KTPoolCache<Entry>::handIn() {
  stats_.cached = held_;
  stats_.cached -= told_;
  told_ = held_;
  return stats_;
}
