#include "util/KTPool.h"

#include <gtest/gtest.h>

#include <mutex>
#include <random>
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

}  // namespace
