#include "util/ThreadSlots.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "util/Gate.h"
#include "util/KTFiberMutex.h"

namespace {

std::vector<std::pair<void*, void*>> cleaned;  // The value, and what its slot gave meanwhile.
constexpr u32 kSlot = 3;

void note(void* value) {
  cleaned.emplace_back(value, slotGet(kSlot));
}

void refill(void* value) {
  note(value);
  slotSet(kSlot + 1, value, note);
}

TEST(ThreadSlots, cleansTheOldValueBeforeTheNewOneIsSeen) {
  int first = 0, second = 0;
  cleaned.clear();
  std::thread([&] {
    EXPECT_TRUE(slotSet(kSlot, &first, note));
    EXPECT_EQ(&first, slotGet(kSlot));
    EXPECT_TRUE(slotSet(kSlot, &second, note));
    EXPECT_EQ(&second, slotGet(kSlot));
    ASSERT_EQ(1u, cleaned.size());
    EXPECT_EQ(&first, cleaned[0].first);
    EXPECT_NE(&second, cleaned[0].second);
    slotsTearDown();
    EXPECT_EQ(2u, cleaned.size());
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

TEST(ThreadSlots, tearDownAlsoCleansWhatCleanupsStore) {
  int value = 0;
  cleaned.clear();
  std::thread([&] {
    slotSet(kSlot, &value, refill);
    slotsTearDown();
  }).join();
  EXPECT_EQ(2u, cleaned.size());
}

// Host threads come and go; what they leave must neither grow without end nor be taken from a living thread.
TEST(ThreadSlots, ofEndedHostThreadsAreFreedByLaterOnes) {
  KTFiberMutex mutex;
  Gate gate;
  void* worker = nullptr;
  std::atomic<bool> locked{false};
  std::thread living([&] {
    const KTMutexGuard guard(mutex);
    worker = slotGet(kSlotWorker);
    locked = true;
    gate.pass();
    EXPECT_EQ(worker, slotGet(kSlotWorker));
  });
  await([&] { return locked.load(); });
  KTFiberMutex other;
  for (int i = 0; i < 1000; ++i) std::thread([&] { const KTMutexGuard guard(other); }).join();
  EXPECT_LE(slotOwnersForTest(), 70u);
  gate.open();
  living.join();
}

// What the unloading of the module does, threads of the host living on.
TEST(ThreadSlots, unloadFreesWorkersAndLeavesAFreshStart) {
  {
    KTFiberMutex mutex;
    const KTMutexGuard guard(mutex);
  }
  ASSERT_NE(nullptr, slotGet(kSlotWorker));
  slotsUnload();
  EXPECT_EQ(0u, slotOwnersForTest());
  EXPECT_EQ(nullptr, slotGet(kSlotWorker));
  KTFiberMutex mutex;
  const KTMutexGuard guard(mutex);
  EXPECT_NE(nullptr, slotGet(kSlotWorker));
}

}  // namespace
