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

// Somebody resumes a waiter that isn't next. It asks for the section, which the unlocking thread has, and
// that one asks for the waiter.
TEST(KTFiberMutex, aWaiterThatIsResumedByHandStaysInLineAndBlocksNobody) {
  KTFiberMutex mutex;
  std::atomic<IWorker*> worker{nullptr};
  for (int round = 0; round < 100; ++round) {
    mutex.lock();
    worker = nullptr;
    const std::jthread waiter([&] {
      worker = callingWorker();
      mutex.lock();
      mutex.unlock();
      slotsTearDown();
    });
    await([&] { return mutex.waitersForTest() == 1; });
    const orv::platform::SectionGuard section(*mutex.nativeHandle());
    worker.load()->resume();
    for (int i = 0; i < round % 8; ++i) std::this_thread::yield();
    mutex.unlock();
  }
}

// The thread that locked it is gone, and the slots of ended threads are looked for, before another unlocks
// it.
TEST(KTFiberMutex, isUnlockedForAThreadThatHasEnded) {
  for (const bool tornDown : {false, true}) {
    KTFiberMutex mutex;
    std::atomic<orv::platform::ThreadId> id{0};
    std::thread([&] {
      mutex.lock();
      if (tornDown) slotsTearDown();
      id = orv::platform::currentThreadId();
    }).detach();
    await([&] { return id != 0 && orv::platform::threadHasEnded(id); });
    slotsCollect();
    const u32 before = slotOwnersForTest();
    mutex.unlock();
    slotsCollect();
    EXPECT_EQ(before - 1, slotOwnersForTest());
    EXPECT_TRUE(mutex.lock());
    mutex.unlock();
  }
}

TEST(ORVThreadMutexDelegate, aResumeBeforeTheSuspendIsNotLost) {
  KTPtr<ORVThreadMutexDelegate> me(new ORVThreadMutexDelegate);
  EXPECT_TRUE(me->resume());
  EXPECT_TRUE(me->suspend());
  const std::jthread other([&] { EXPECT_TRUE(me->wake()); });  // Gets in once this thread sleeps.
  EXPECT_TRUE(me->suspend());
}

}  // namespace
