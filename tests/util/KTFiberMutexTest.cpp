#include "util/KTFiberMutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "util/Gate.h"
#include "util/ThreadSlots.h"

namespace {

TEST(KTFiberMutex, isHandedOnByTheLastUnlockOfItsOwner) {
  KTFiberMutex mutex;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(mutex.lock());
  std::atomic<bool> entered{false};
  std::thread other([&] {
    const KTMutexGuard guard(mutex);
    entered = true;
  });
  await([&] { return mutex.waitersForTest() == 1; });
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(mutex.unlock());
    EXPECT_EQ(1u, mutex.waitersForTest()) << i;
    EXPECT_FALSE(entered);
  }
  mutex.unlock();
  other.join();
  EXPECT_TRUE(entered);
}

TEST(KTFiberMutex, servesWaitersInTheOrderInWhichTheyQueued) {
  KTFiberMutex mutex;
  std::vector<int> order;
  std::vector<std::thread> threads;
  mutex.lock();
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      const KTMutexGuard guard(mutex);
      order.push_back(i);
    });
    await([&] { return mutex.waitersForTest() == static_cast<u32>(i) + 1; });
  }
  mutex.unlock();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ((std::vector{0, 1, 2, 3, 4, 5, 6, 7}), order);
}

// The owner changes inside `unlock`: whoever comes back at once queues behind the one who waited.
TEST(KTFiberMutex, letsNobodySlipInAtTheHandOver) {
  KTFiberMutex mutex;
  std::vector<char> order;
  mutex.lock();
  std::thread other([&] {
    const KTMutexGuard guard(mutex);
    order.push_back('b');
  });
  await([&] { return mutex.waitersForTest() == 1; });
  mutex.unlock();
  mutex.lock();
  order.push_back('a');
  mutex.unlock();
  other.join();
  EXPECT_EQ((std::vector{'b', 'a'}), order);
}

TEST(KTFiberMutex, keepsOneDelegateForAThreadAndAllItsMutexes) {
  std::thread([] {
    KTFiberMutex first, second;
    EXPECT_EQ(nullptr, slotGet(kSlotWorker));
    first.lock();
    void* const made = slotGet(kSlotWorker);
    ASSERT_NE(nullptr, made);
    EXPECT_EQ(kWorkerDelegate, static_cast<IWorker*>(made)->workerType());
    EXPECT_EQ(1, static_cast<IWorker*>(made)->getRefCount());
    second.lock();
    second.unlock();
    first.unlock();
    EXPECT_EQ(made, slotGet(kSlotWorker));
    slotsTearDown();
    EXPECT_EQ(nullptr, slotGet(kSlotWorker));
  }).join();
}

TEST(KTFiberMutex, keepsACountExactUnderContention) {
  constexpr int kThreads = 4, kRounds = 20'000;
  KTFiberMutex mutex;
  int count = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        const KTMutexGuard outer(mutex);
        const KTMutexGuard inner(mutex);
        ++count;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kThreads * kRounds, count);
}

TEST(KTFiberMutex, isReleasedByAnException) {
  KTFiberMutex mutex;
  EXPECT_THROW(
      {
        const KTMutexGuard guard(mutex);
        throw 1;
      },
      int);
  std::thread([&] { const KTMutexGuard guard(mutex); }).join();
}

TEST(ORVThreadMutexDelegate, aResumeBeforeTheSuspendIsNotLost) {
  KTPtr<ORVThreadMutexDelegate> me(new ORVThreadMutexDelegate);
  EXPECT_TRUE(me->resume());
  EXPECT_TRUE(me->suspend());
  std::thread other([&] { EXPECT_TRUE(me->wake()); });  // Gets in once this thread sleeps.
  EXPECT_TRUE(me->suspend());
  other.join();
}

}  // namespace
