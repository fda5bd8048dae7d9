#include "util/KTPool.h"

#include <gtest/gtest.h>

#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "support/HeapWatch.h"

namespace {

using orv::test::HeapWatch;

constexpr KTPoolSettings kSettings{.threadSlot = 1,
                                   .maxEntrySize = 4096,
                                   .maxEntries = 64,
                                   .maxBytes = 1 << 20,
                                   .lowShare = 128,
                                   .syncInterval = 50};

constexpr u32 kCost = 100 + sizeof(KTMemory);

TEST(KTPool, handsABlockOutAgainFreshAndGreatEnough) {
  KTPool<KTMemory> pool(kSettings);
  KTMemory* first = nullptr;
  {
    const KTMemoryPtr block(100, &pool);
    first = block.get();
    EXPECT_EQ(2, block->getRefCount());
    block->length.store(77);
    block->writeOffset.store(7);
  }
  EXPECT_EQ(1u, first->recycleCount);
  { const KTMemoryPtr spare(100, &pool); }  // The other one of the first batch of two.
  const KTMemoryPtr again(3000, &pool);
  EXPECT_EQ(first, again.get());
  EXPECT_EQ(3000u, again->capacity);
  EXPECT_EQ(0, again->length.read());
  EXPECT_EQ(0, again->writeOffset.read());
  EXPECT_EQ(nullptr, again->nextFree);
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

TEST(KTPool, destroysABlockThatOnlyItsOverheadMakesTooGreat) {
  KTPool<KTMemory> pool(kSettings);
  { const KTMemoryPtr block(kSettings.maxEntrySize, &pool); }
  slotSet(kSettings.threadSlot, nullptr, nullptr);  // Hands the thread's counters in.
  const KTPoolCounters counters = pool.counters();
  EXPECT_EQ(1u, counters.totals.oversizeFree.count);
  EXPECT_EQ(0u, counters.totals.oversizeAlloc.count);
  EXPECT_EQ(2u, counters.totals.alloc.count);
  EXPECT_EQ(1u, counters.free.count);  // The other one of its batch: nobody has released that.
}

TEST(KTPool, leavesAThreadWithoutACacheWhereAnotherPoolHasTheSlot) {
  KTPool<KTMemory> pool(kSettings), other(kSettings);
  ASSERT_NE(nullptr, other.threadCache());
  EXPECT_EQ(nullptr, pool.threadCache());
  { const KTMemoryPtr block(100, &pool); }
  const KTPoolCounters counters = pool.counters();
  EXPECT_EQ((KTPoolTally{1, kCost}), counters.directAlloc);
  EXPECT_EQ((KTPoolTally{1, kCost}), counters.destroy);
  EXPECT_EQ(0u, counters.cacheCount);
}

// Threads come and go, take blocks, fill them, and release those of others.
TEST(KTPool, keepsItsBlocksAndItsBooksUnderContention) {
  constexpr int kThreads = 4, kLives = 6, kRounds = 1500;
  KTPool<KTMemory> pool(kSettings);
  std::mutex mutex;
  std::vector<KTMemoryPtr> shared(32);  // Under the mutex.
  std::vector<std::thread> threads;
  for (u32 t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (u32 life = 0; life < kLives; ++life) {
        std::thread([&] {
          std::minstd_rand random(t * 100 + life + 1);
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
        }).join();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  shared.clear();
  slotSet(kSettings.threadSlot, nullptr, nullptr);
  const KTPoolCounters c = pool.counters();
  EXPECT_EQ(0u, c.cacheCount);
  EXPECT_EQ(KTPoolTally{}, c.totals.cached);
  EXPECT_EQ(c.totals.alloc.count, c.totals.destroy.count + c.destroy.count + c.free.count);
  EXPECT_EQ(c.returned.count, c.taken.count + c.destroy.count + c.free.count);
  EXPECT_LE(c.free.count, u64{kThreads} * kSettings.maxEntries);
}

}  // namespace
