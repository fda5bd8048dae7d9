#include "util/KTFiberMutex.h"

#include <gtest/gtest.h>

#include <atomic>

#include "support/Threads.h"
#include "util/ThreadSlots.h"

namespace {

using orv::test::await;

TEST(KTFiberMutex, isHandedOnByTheLastUnlockOfItsOwner) {
  KTFiberMutex mutex;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(mutex.lock());
  std::atomic<bool> entered{false};
  const std::jthread other([&] {
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
  // The owner has changed inside `unlock`: whoever comes back at once queues behind the one who waited.
  const KTMutexGuard guard(mutex);
  EXPECT_TRUE(entered);
}

TEST(KTFiberMutex, keepsOneDelegateForAThreadAndAllItsMutexes) {
  std::thread([] {
    KTFiberMutex first, second;
    EXPECT_EQ(nullptr, slotGet(kSlotWorker));
    first.lock();
    auto* const made = static_cast<IWorker*>(slotGet(kSlotWorker));
    ASSERT_NE(nullptr, made);
    EXPECT_EQ(kWorkerDelegate, made->workerType());
    EXPECT_EQ(1, made->getRefCount());
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
  orv::test::onThreads(kThreads, [&](int) {
    for (int round = 0; round < kRounds; ++round) {
      const KTMutexGuard outer(mutex);
      const KTMutexGuard inner(mutex);
      ++count;
    }
  });
  EXPECT_EQ(kThreads * kRounds, count);
}

TEST(ORVThreadMutexDelegate, aResumeBeforeTheSuspendIsNotLost) {
  KTPtr<ORVThreadMutexDelegate> me(new ORVThreadMutexDelegate);
  EXPECT_TRUE(me->resume());
  EXPECT_TRUE(me->suspend());
  const std::jthread other([&] { EXPECT_TRUE(me->wake()); });  // Gets in once this thread sleeps.
  EXPECT_TRUE(me->suspend());
}

}  // namespace
