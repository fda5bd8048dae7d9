#include "util/KTPool.h"

#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/HeapWatch.h"
#include "support/Threads.h"

namespace {

using orv::test::HeapWatch;

constexpr KTPoolSettings kSettings{.threadSlot = 1,
                                   .maxEntrySize = 4096,
                                   .maxEntries = 64,
                                   .maxBytes = 1 << 20,
                                   .lowShare = 128,
                                   .syncInterval = 50};

TEST(KTPool, aBlockComesHomeWhenOnlyThePoolHoldsIt) {
  KTPool<KTMemory> pool(kSettings);
  KTMemoryPtr user(100, &pool);
  KTMemory* const block = user.get();
  block->addRef();
  EXPECT_EQ(2, block->release());
  EXPECT_EQ(0u, block->recycleCount);
  user = nullptr;
  EXPECT_EQ(1, block->getRefCount());
  EXPECT_EQ(1u, block->recycleCount);

  auto* const free = new KTMemory(100, &pool);
  EXPECT_EQ(1, free->getRefCount());
  EXPECT_EQ(0, free->release());  // By the pool itself: destroyed, and not handed to it once more.
}

// Slots behind the first five hold other things than caches.
TEST(KTPool, leavesTheSlotsOfOthersAlone) {
  KTPoolSettings settings = kSettings;
  for (u32 slot : {kSlotWorker, kSlotCount}) {
    settings.threadSlot = slot;
    const std::string foreign(64, 'x');
    slotSet(slot, const_cast<char*>(foreign.data()), nullptr);
    {
      KTPool<KTMemory> pool(settings);
      { const KTMemoryPtr block(100, &pool); }
      EXPECT_EQ(1u, pool.counters().directAlloc.count);
      EXPECT_EQ(0u, pool.counters().cacheCount);
    }
    EXPECT_EQ(slot < kSlotCount ? foreign.data() : nullptr, slotGet(slot));
    slotSet(slot, nullptr, nullptr);
  }
}

// A thread hands its counters in whenever it takes the mutex: as long as the pool hasn't heard of it, it took
// none.
TEST(KTPool, aHitTakesNoLockAndNoMemory) {
  KTPool<KTMemory> pool(kSettings);
  { const KTMemoryPtr block(100, &pool); }
  const KTPoolCounters before = pool.counters();
  const HeapWatch heap;
  for (u32 i = 0; i < kSettings.syncInterval; ++i) const KTMemoryPtr block(100, &pool);
  EXPECT_EQ(0u, heap->allocations);
  EXPECT_EQ(before, pool.counters());
  { const KTMemoryPtr oneMore(100, &pool); }
  EXPECT_EQ(kSettings.syncInterval + 1, pool.counters().totals.hits.count);
}

// Threads come and go, take blocks, fill them, and release those of others.
TEST(KTPool, keepsItsBlocksAndItsBooksUnderContention) {
  constexpr int kThreads = 4, kLives = 6, kRounds = 1500;
  KTPool<KTMemory> pool(kSettings);
  std::mutex mutex;
  std::vector<KTMemoryPtr> shared(32);  // Under the mutex.
  const auto live = [&](int seed) {
    std::minstd_rand random(static_cast<u32>(seed));
    for (int round = 0; round < kRounds; ++round) {
      const u32 size = 1 + static_cast<u32>(random() % 5000);
      KTMemoryPtr block(size, &pool);
      block->data[0] = block->data[size - 1] = static_cast<u8>(size);
      const std::lock_guard guard(mutex);
      KTMemoryPtr& place = shared[random() % shared.size()];
      if (place) {
        EXPECT_EQ(place->data[0], place->data[place->length.read() - 1]);
      }
      block->length.store(static_cast<i32>(size));
      place = block;
    }
    slotsTearDown();
  };
  orv::test::onThreads(kThreads, [&](int i) {
    for (int life = 1; life <= kLives; ++life) std::thread(live, i * 100 + life).join();
  });
  shared.clear();
  slotSet(kSettings.threadSlot, nullptr, nullptr);
  const KTPoolCounters c = pool.counters();
  EXPECT_EQ(0u, c.cacheCount);
  EXPECT_EQ(KTPoolTally{}, c.totals.cached);
  EXPECT_EQ(c.totals.alloc.count, c.totals.destroy.count + c.destroy.count + c.free.count);
  EXPECT_EQ(c.returned.count, c.taken.count + c.destroy.count + c.free.count);
  EXPECT_LE(c.free.count, u64{kThreads} * kSettings.maxEntries);
}

// Host threads end without a word. What they kept goes back to the pool, and their share of its marks.
TEST(KTPool, getsBackWhatEndedThreadsKept) {
  KTPool<KTMemory> pool(kSettings);
  for (int i = 0; i < 300; ++i) std::thread([&] { const KTMemoryPtr block(100, &pool); }).join();
  EXPECT_LE(pool.counters().cacheCount, 70u);
  slotsCollect();
  const KTPoolCounters c = pool.counters();
  EXPECT_EQ(0u, c.cacheCount);
  EXPECT_EQ(KTPoolTally{}, c.totals.cached);
  EXPECT_EQ(kSettings.maxEntries, pool.highMark());
  EXPECT_EQ(c.totals.alloc.count, c.destroy.count + c.free.count);
}

// The threads have slots still, one of them lives on, and another pool uses the same slot.
TEST(KTPool, mayGoBeforeTheSlotsOfItsThreads) {
  std::latch used(1), gone(1);
  auto pool = std::make_unique<KTPool<KTMemory>>(kSettings);
  const auto use = [](KTPool<KTMemory>* its) { const KTMemoryPtr block(100, its); };
  std::jthread living([&] {
    use(pool.get());
    EXPECT_EQ(2u, pool->threadCache()->stats().alloc.count);  // The pool hasn't heard of them.
    EXPECT_EQ(0u, pool->counters().totals.alloc.count);
    used.count_down();
    gone.wait();
    KTPool<KTMemory> next(kSettings);
    use(&next);
    EXPECT_EQ(1u, next.counters().directAlloc.count);
    slotsTearDown();
    use(&next);
    EXPECT_EQ(1u, next.counters().directAlloc.count);
    EXPECT_EQ(1u, next.counters().cacheCount);
  });
  used.wait();
  for (int i = 0; i < 10; ++i) std::thread(use, pool.get()).join();
  pool.reset();
  gone.count_down();
  living.join();
  slotsCollect();
}

}  // namespace
