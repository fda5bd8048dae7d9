#include "util/KTThreads.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "platform/Thread.h"
#include "util/Gate.h"
#include "util/KTFiberMutex.h"
#include "util/ORVFiberPool.h"
#include "util/ThreadSlots.h"

namespace {

using Work = std::function<void()>;

u32 doWork(void* work) {
  (*static_cast<Work*>(work))();
  return 0;
}

void awaitThreads() {
  await([] { return runningThreadCount() == 0; });
}

struct CountingOnce : orv::util::hidden::IOnce {
  void run() override {
    std::this_thread::yield();
    ++runs;
  }
  int runs = 0;
};

TEST(runOnce, runsOnceForItsFlagOnAllThreads) {
  static boost::once_flag flag = BOOST_ONCE_INIT;
  CountingOnce action;
  Gate gate;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      gate.pass();
      runOnce(flag, action);
      EXPECT_EQ(1, action.runs);  // Done when any call returns.
    });
  }
  gate.open();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(1, action.runs);
}

KTThread* worker() {
  return static_cast<KTThread*>(static_cast<IWorker*>(slotGet(kSlotWorker)));
}

TEST(startThread, givesTheThreadAWorkerThatTheLibraryFindsById) {
  Gate valuesSet;
  Work work = [&] {
    ASSERT_NE(nullptr, worker());
    EXPECT_EQ(kWorkerThread, worker()->workerType());
    EXPECT_EQ(orv::platform::currentThreadId(), worker()->threadId);
    EXPECT_EQ(orv::platform::currentProcessId(), worker()->processId);
    EXPECT_EQ(nullptr, ORVFiber::current());
    EXPECT_EQ(1u, runningThreadCount());
    valuesSet.pass();
    EXPECT_EQ(17u, worker()->userValue1);
    EXPECT_EQ(4u, worker()->userValue2);
  };
  setUserValues(1, 2, 3);  // Nobody's.
  const u32 id = startThread(doWork, &work, 0);
  ASSERT_NE(0u, id);
  await([] { return runningThreadCount() == 1; });
  setUserValues(id + 1, 8, 8);
  setUserValues(id, 17, 4);
  valuesSet.open();
  awaitThreads();
}

TEST(startThread, runsOnAFiberWhereAskedAndAllowed) {
  for (const bool allowed : {true, false}) {
    for (const u32 options : {0u, kThreadWithFiber}) {
      setThreadFibers(allowed);
      Gate done;
      bool onFiber = !allowed;
      Work work = [&] {
        onFiber = ORVFiber::current() != nullptr;
        done.open();
      };
      ASSERT_NE(0u, startThread(doWork, &work, options));
      done.pass();
      EXPECT_EQ(allowed && options == kThreadWithFiber, onFiber);
    }
  }
  setThreadFibers(true);
  awaitThreads();
}

TEST(startThread, takesItsFiberFromThePoolAndRunsDirectlyWhenThatHasNone) {
  ORVFiberPool pool(1);
  fiberPool = &pool;
  Gate taken, done;
  ORVFiber* first = nullptr;
  ORVFiber* second = nullptr;
  Work inner = [&] {
    second = ORVFiber::current();
    done.open();
  };
  Work outer = [&] {
    first = ORVFiber::current();
    ASSERT_NE(0u, startThread(doWork, &inner, kThreadWithFiber));
    done.pass();
    taken.open();
  };
  ASSERT_NE(0u, startThread(doWork, &outer, kThreadWithFiber));
  taken.pass();
  awaitThreads();
  EXPECT_NE(nullptr, first);
  EXPECT_EQ(nullptr, second);
  EXPECT_FALSE(pool.stop());
  fiberPool = nullptr;
}

// The function waits on its fiber: its thread ends, and another one takes the function to its end.
TEST(startThread, endsWhileItsFunctionWaits) {
  KTFiberMutex mutex;
  std::atomic<bool> done{false};
  Work work = [&] {
    const KTMutexGuard guard(mutex);
    done = true;
  };
  mutex.lock();
  const u32 id = startThread(doWork, &work, kThreadWithFiber);
  await([&] { return mutex.waitersForTest() == 1; });
  await([&] { return orv::platform::threadHasEnded(id); });
  mutex.unlock();
  await([&] { return done.load(); });
  awaitThreads();
}

// Threads that start and end at random, while others store values for whatever runs.
TEST(startThread, keepsTheRegistryWhole) {
  constexpr int kStarters = 4, kEach = 100;
  std::atomic<int> done{0};
  std::atomic<u32> lastId{0};
  KTFiberMutex mutex;
  Work work = [&] {
    setUserValues(lastId, 1, 2);
    const KTMutexGuard guard(mutex);
    if (++done % 3 == 0) orv::util::yield();
  };
  std::vector<std::thread> starters;
  for (int i = 0; i < kStarters; ++i) {
    starters.emplace_back([&, i] {
      std::minstd_rand random(static_cast<u32>(i));
      for (int n = 0; n < kEach; ++n) {
        Work* const mine = new Work(work);
        lastId = startThread(
            [](void* raw) -> u32 {
              const std::unique_ptr<Work> owned(static_cast<Work*>(raw));
              (*owned)();
              return 0;
            },
            mine, random() % 2);
        EXPECT_NE(0u, lastId);
      }
      slotsTearDown();
    });
  }
  for (auto& starter : starters) starter.join();
  await([&] { return done == kStarters * kEach; });
  awaitThreads();
}

}  // namespace
