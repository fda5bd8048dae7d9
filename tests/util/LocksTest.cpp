#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "util/Gate.h"
#include "util/ORVThreadUtils.h"

namespace {

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
    std::thread([] { EXPECT_EQ(0u, KTThreadOnlyMutex::trackedDepth()); }).join();
  }
  EXPECT_EQ(0u, KTThreadOnlyMutex::trackedDepth());
  KTThreadOnlyMutex::setTracking(false);
}

// Notes what a wait does to the mutex that it is given.
struct NotingMutex : IMutex {
  bool lock() override { return notes += "l", true; }
  bool unlock() override { return notes += "u", true; }
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
  EXPECT_EQ("ululul", held.notes);
  signal.signal();
  signal.signal();
  EXPECT_EQ(1, signal.wait(held));
  EXPECT_EQ(2, signal.wait(held, 1));
  signal.signal();
  EXPECT_EQ(1, signal.wait(held, KTTicks(10'000'000)));
  EXPECT_EQ("ulululululul", held.notes);
}

TEST(KTConditionSignal, aWaiterLeavesTheMutexToOthers) {
  KTThreadOnlyMutex mutex(false);
  KTConditionSignal signal;
  const KTMutexGuard guard(mutex);
  std::thread other([&] {
    const KTMutexGuard inside(mutex);  // Only while the wait below runs.
    signal.signal();
  });
  EXPECT_EQ(1, signal.wait(mutex));
  EXPECT_TRUE(mutex.nativeHandle()->isHeldByCaller());
  other.join();
}

TEST(ReadWriteLock, letsAllWaitingReadersInAfterTheWriter) {
  constexpr int kReaders = 6;
  orv::util::ReadWriteLock lock;
  std::atomic<int> inside{0};
  std::vector<std::thread> readers;
  lock.lockWrite();
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&] {
      lock.lockRead();
      ++inside;
      await([&] { return inside == kReaders; });  // Each stays until all are in at once.
      lock.unlockRead();
    });
  }
  await([&] { return lock.readersWaitingForTest() == kReaders; });
  EXPECT_EQ(0, inside);
  lock.unlockWrite();
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(kReaders, inside);
}

TEST(ReadWriteLock, aWaitingWriterGoesBeforeNewReaders) {
  orv::util::ReadWriteLock lock;
  std::string order;  // Under the lock.
  lock.lockRead();
  std::thread writer([&] {
    lock.lockWrite();
    order += 'w';
    lock.unlockWrite();
  });
  await([&] { return lock.writersWaitingForTest() == 1; });
  std::thread reader([&] {
    lock.lockRead();
    order += 'r';
    lock.unlockRead();
  });
  await([&] { return lock.readersWaitingForTest() == 1; });
  lock.unlockRead();
  writer.join();
  reader.join();
  EXPECT_EQ("wr", order);
}

TEST(ReadWriteLock, keepsReadersAndWritersApartUnderContention) {
  constexpr int kThreads = 4, kRounds = 3000;
  orv::util::ReadWriteLock lock;
  int first = 0, second = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < kRounds; ++round) {
        if ((round + i) % 3 == 0) {
          lock.lockWrite();
          ++first, ++second;
          lock.unlockWrite();
        } else {
          lock.lockRead();
          EXPECT_EQ(first, second);
          lock.unlockRead();
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kThreads * kRounds / 3, first);
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
  EXPECT_EQ(
      "l+u"
      "lu"
      "lu"
      "lu"
      "l-u"
      "lu",
      lock.notes);
}

}  // namespace
