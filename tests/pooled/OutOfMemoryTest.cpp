// The base library where memory runs out, with the string pool on.

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <thread>

#include "support/HeapWatch.h"
#include "support/Threads.h"
#include "util/KTFiberMutex.h"
#include "util/KTPool.h"
#include "util/KTStringPool.h"
#include "util/KTWideString.h"
#include "util/ORVFiberPool.h"

namespace {

using orv::test::HeapWatch;

struct Work {
  KTFiberMutex mutex;
  std::atomic<bool> done{false};
};

u32 doWork(void* raw) {
  auto& work = *static_cast<Work*>(raw);
  const KTMutexGuard guard(work.mutex);
  work.done = true;
  return 0;
}

bool useTexts() {
  const KTString text("abcd");
  KTString sum = text + "efghi";
  sum += KTString("jkl").c_str();
  return toNarrow(toWide(sum)) == sum && KTString::fromNumber(i64{1} << 40) == "1099511627776" &&
         KTString("%41%42").urlEncode(false).urlDecode() == "%41%42";
}

bool useBlocks() {
  KTPool<KTMemory> pool({.threadSlot = 1, .maxEntrySize = 4096, .maxEntries = 9, .maxBytes = 1 << 20});
  for (const u32 size : {100, 9000, 100}) const KTMemoryPtr block(size, &pool), other(size, &pool);
  return true;
}

bool useLocks() {
  Work work;
  KTThreadOnlyMutex tracked(true);
  doWork(&work);
  const KTMutexGuard guard(tracked);
  return !slotGet(kSlotPoolCacheLast) && slotSet(kSlotPoolCacheLast, &work, nullptr) &&
         slotSet(kSlotPoolCacheLast, nullptr, nullptr);
}

bool useFibers() {
  ORVFiberPool fibers(2);
  Work work;
  const ORVFiberPtr fiber = fibers.acquire();
  if (!fiber) return false;
  const bool ran = fiber->run(doWork, &work);
  if (!ran) fibers.recycle(fiber);
  EXPECT_FALSE(fibers.stop());
  return ran;
}

bool useThreads() {
  Work work;
  const bool started = startThread(doWork, &work, 0) != 0;
  orv::test::await([&] { return work.done == started && runningThreadCount() == 0; });
  return started;
}

// Each allocation of each road fails in turn.
TEST(OutOfMemory, costsNoMoreThanTheCall) {
  enum Outcome { kRefused, kDone, kThrew };
  const struct {
    const char* name;
    bool (*go)();
    int mostOutcome;  // kThrew where an exception may come out.
  } kRoads[] = {{"texts", useTexts, kThrew},
                {"blocks", useBlocks, kThrew},
                {"locks", useLocks, kThrew},
                {"fibers", useFibers, kDone},
                {"threads", useThreads, kDone}};
  for (const auto& road : kRoads) {
    EXPECT_TRUE(road.go());  // What is made once in a process.
    bool pending = false;
    for (std::size_t n = 1; !pending; ++n) {
      SCOPED_TRACE(testing::Message() << road.name << ", allocation " << n);
      std::thread([&] {
        slotsCollect();
        KTStringPool::instance().sweep();
        HeapWatch heap;
        {
          const ThreadSlotsGuard slots;
          heap.failAt(n);
          int outcome = kThrew;
          try {
            outcome = road.go();
          } catch (const std::bad_alloc&) {
          }
          pending = heap.failurePending();
          heap.failAt(0);
          EXPECT_LE(outcome, pending ? kDone : road.mostOutcome);
          EXPECT_TRUE(road.go());
        }
        KTStringPool::instance().sweep();
        if (road.go != useThreads) {
          EXPECT_EQ(0u, heap->live);
        }
      }).join();
      EXPECT_EQ(0u, ORVFiber::aliveCount());
    }
  }
}

}  // namespace
