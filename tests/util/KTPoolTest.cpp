#include "util/KTPool.h"

#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <string>
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
