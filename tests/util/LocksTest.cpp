#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>

#include "support/Threads.h"
#include "util/KTTime.h"
#include "util/ORVThreadUtils.h"
#include "util/ThreadSlots.h"

namespace {

using orv::test::await;
using orv::test::onThreads;
using orv::util::ReadWriteLock;

TEST(KTThreadOnlyMutex, countsTrackedLocksOfTheThreadWhileTrackingIsOn) {
  KTThreadOnlyMutex tracked(true), plain(false);
  {
    const std::lock_guard<IMutex> before(tracked);
    EXPECT_EQ(0u, KTThreadOnlyMutex::trackedDepth());
    KTThreadOnlyMutex::setTracking(true);
  }
  EXPECT_EQ(0u, KTThreadOnlyMutex::trackedDepth());  // Not below, for a lock that was not counted.
  {
    const KTMutexGuard one(tracked), two(tracked), three(plain);
    EXPECT_EQ(2u, KTThreadOnlyMutex::trackedDepth());
    onThreads(1, [](int) { EXPECT_EQ(0u, KTThreadOnlyMutex::trackedDepth()); });
  }
  EXPECT_EQ(0u, KTThreadOnlyMutex::trackedDepth());
  KTThreadOnlyMutex::setTracking(false);
}

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

// Notes what is done to it.
struct NotingMutex : IMutex {
  bool lock() override { return notes += "l", true; }
  bool unlock() override { return notes += "u ", true; }
  orv::platform::CriticalSection* nativeHandle() override { return nullptr; }
  u32 setSpinCount(u32) override { return 0; }
  std::string notes;
};

TEST(KTConditionSignal, tellsHowAWaitEndedAndRetakesTheMutexEitherWay) {
  NotingMutex held;
  KTConditionSignal signal;
  EXPECT_EQ(2, signal.wait(held, 0));
  EXPECT_EQ(2, signal.wait(held, KTTicks(9'999)));  // Below a millisecond: only a look.
  EXPECT_EQ(2, signal.wait(held, KTTicks(-1)));
  EXPECT_EQ("u lu lu l", held.notes);
  const i64 before = monotonicMilliseconds();
  EXPECT_EQ(2, signal.wait(held, KTTicks(300'000)));  // 30 ms
  const i64 waited = monotonicMilliseconds() - before;
  EXPECT_TRUE(29 <= waited && waited < 2000) << waited;
  signal.signal();
  signal.signal();
  EXPECT_EQ(1, signal.wait(held));
  EXPECT_EQ(2, signal.wait(held, 1));
  signal.signal();
  EXPECT_EQ(1, signal.wait(held, KTTicks(10'000'000)));
  EXPECT_EQ("u lu lu lu lu lu lu l", held.notes);
}

TEST(ReadWriteLock, aWaitingWriterGoesBeforeNewReadersAndThenAllOfThemAtOnce) {
  constexpr int kReaders = 6;
  ReadWriteLock lock;
  std::atomic<int> inside{0};
  lock.lockRead();
  std::jthread writer([&] {
    lock.lockWrite();
    EXPECT_EQ(0, inside);
    lock.unlockWrite();
  });
  await([&] { return lock.writersWaitingForTest() == 1; });
  std::jthread readers([&] {
    onThreads(kReaders, [&](int) {
      lock.lockRead();
      ++inside;
      await([&] { return inside == kReaders; });  // Each stays until all are in at once.
      lock.unlockRead();
    });
  });
  await([&] { return lock.readersWaitingForTest() == kReaders; });
  lock.unlockRead();
}

// Counts on several threads at once, each inside the lock `depth` times.
void expectExclusion(auto lock, auto unlock, int depth) {
  constexpr int kThreads = 4, kRounds = 10'000;
  int count = 0;
  onThreads(kThreads, [&](int) {
    for (int round = 0; round < kRounds; ++round) {
      for (int i = 0; i < depth; ++i) lock();
      ++count;
      for (int i = 0; i < depth; ++i) unlock();
    }
  });
  EXPECT_EQ(kThreads * kRounds, count);
}

TEST(Locks, keepACountExactUnderContention) {
  orv::platform::CriticalSection section;
  EXPECT_EQ(0u, section.setSpinCount(1000));
  expectExclusion([&] { section.enter(); }, [&] { section.leave(); }, 2);
  EXPECT_EQ(1000u, section.setSpinCount(0));
  KTThreadOnlyMutex ofThreads(true);
  KTFiberMutex ofFibers;
  for (IMutex* const mutex : std::initializer_list<IMutex*>{&ofThreads, &ofFibers})
    expectExclusion([=] { mutex->lock(); }, [=] { mutex->unlock(); }, 2);
  ReadWriteLock all;
  expectExclusion([&] { all.lockWrite(); }, [&] { all.unlockWrite(); }, 1);
}

struct Noting : ActiveObject {
  explicit Noting(NotingMutex* mutex) : ActiveObject(mutex), notes(mutex->notes) {}
  void onActive() override { notes += '+'; }
  void onInactive() override { notes += '-'; }
  std::string& notes;
};

TEST(ActiveObject, tellsTheFirstAndTheLastActivityUnderTheLock) {
  NotingMutex lock;
  KTPtr<Noting> object(new Noting(&lock));
  object->activate();
  object->activate();
  object->deactivate();
  EXPECT_TRUE(object->isActive());
  object->deactivate();
  EXPECT_FALSE(object->isActive());
  EXPECT_EQ("l+u lu lu lu l-u lu ", lock.notes);
}

}  // namespace
