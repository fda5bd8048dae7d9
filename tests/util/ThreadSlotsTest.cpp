#include "util/ThreadSlots.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>
#include <utility>
#include <vector>

#include "util/KTFiberMutex.h"
#include "util/ORVFiber.h"

namespace {

constexpr u32 kSlot = 3;
std::vector<std::pair<void*, void*>> cleaned;  // The value, and what its slot gave meanwhile.

void note(void* value) {
  cleaned.emplace_back(value, slotGet(kSlot));
}

void refill(void* value) {
  note(value);
  slotSet(kSlot + 1, value, note);
}

// What every mutex does with the slots of a thread that comes to it.
void useAMutex() {
  KTFiberMutex mutex;
  const KTMutexGuard guard(mutex);
}

TEST(ThreadSlots, cleanEachValueOnceBeforeANewOneIsSeen) {
  int first = 0, second = 0;
  cleaned.clear();
  std::thread([&] {
    EXPECT_TRUE(slotSet(kSlot, &first, note));
    EXPECT_EQ(&first, slotGet(kSlot));
    EXPECT_TRUE(slotSet(kSlot, &second, refill));
    EXPECT_EQ(&second, slotGet(kSlot));
    ASSERT_EQ(1u, cleaned.size());
    EXPECT_EQ(&first, cleaned[0].first);
    EXPECT_NE(&second, cleaned[0].second);
    slotsTearDown();
    EXPECT_EQ(3u, cleaned.size());  // With what the cleanup stored.
    EXPECT_EQ(nullptr, slotGet(kSlot));
  }).join();
}

TEST(ThreadSlots, areNineAndEachThreadsOwn) {
  int value = 0;
  for (const u32 index : {kSlotCount, kSlotCount + 1, 0xFFFFFFFFu}) {
    EXPECT_FALSE(slotSet(index, &value, nullptr));
    EXPECT_EQ(nullptr, slotGet(index));
  }
  EXPECT_TRUE(slotSet(kSlotCount - 1, &value, nullptr));
  std::thread([] { EXPECT_EQ(nullptr, slotGet(kSlotCount - 1)); }).join();
  EXPECT_TRUE(slotSet(kSlotCount - 1, nullptr, nullptr));
}

// Host threads come and go; what they leave must neither grow without end nor be taken from a living thread.
TEST(ThreadSlots, ofEndedHostThreadsAreFreedByLaterOnes) {
  std::latch used(1), othersEnded(1);
  const std::jthread living([&] {
    useAMutex();
    void* const worker = slotGet(kSlotWorker);
    used.count_down();
    othersEnded.wait();
    EXPECT_EQ(worker, slotGet(kSlotWorker));
  });
  used.wait();
  for (int i = 0; i < 1000; ++i) std::thread(useAMutex).join();
  EXPECT_LE(slotOwnersForTest(), 70u);
  othersEnded.count_down();
}

TEST(ThreadSlots, ofEndedThreadsAreFreedByACollection) {
  const struct {
    void (*body)();
    u32 left;  // Threads with slots until then.
  } kCases[] = {{[] {
                   const ThreadSlotsGuard guard;
                   useAMutex();
                 },
                 0},
                {[] { ORVFiber::ensureThreadIsFiber(); }, 1},  // With its own fiber.
                // A cleanup that looks for ended threads itself, as the end of a pool does.
                {[] { slotSet(kSlot, &cleaned, [](void*) { slotsCollect(); }); }, 1}};
  for (const auto& c : kCases) {
    slotsCollect();
    const u32 before = slotOwnersForTest();
    std::thread(c.body).join();
    EXPECT_EQ(before + c.left, slotOwnersForTest());
    slotsCollect();
    EXPECT_EQ(before, slotOwnersForTest());
  }
}

// What the unloading of the module does, threads of the host living on; more often than the system has
// indexes for thread-local values.
TEST(ThreadSlots, unloadFreesWorkersAndLeavesAFreshStart) {
  for (int round = 0; round < 2000; ++round) {
    useAMutex();
    auto* const worker = static_cast<IWorker*>(slotGet(kSlotWorker));
    ASSERT_NE(nullptr, worker);
    ASSERT_EQ(kWorkerDelegate, worker->workerType());
    ASSERT_EQ(1, worker->getRefCount());
    slotsUnload();
    ASSERT_EQ(0u, slotOwnersForTest());
    ASSERT_EQ(nullptr, slotGet(kSlotWorker));
  }
}

}  // namespace
