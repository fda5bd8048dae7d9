#include "util/ORVFiber.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <exception>
#include <latch>
#include <memory>
#include <string>
#include <vector>

#include "support/HeapWatch.h"
#include "util/ORVFiberPool.h"
#include "util/Work.h"

namespace {

using orv::test::await;
using orv::test::onThreads;

TEST(ORVFiber, isAWorkerOfItsThreadWhileItRuns) {
  onCleanThread([] {
    const u32 thread = orv::platform::currentThreadId();
    ORVFiberPtr fiber(new ORVFiber);
    EXPECT_EQ(kWorkerFiber, fiber->workerType());
    EXPECT_EQ(ORVFiber::kFresh, fiber->state());
    Work work = [&] {
      EXPECT_EQ(fiber.get(), ORVFiber::current());
      EXPECT_EQ(ORVFiber::kRunning, fiber->state());
      EXPECT_EQ(thread, fiber->runningThread());
      EXPECT_FALSE(fiber->run(doWork, nullptr));  // It has work.
      EXPECT_FALSE(fiber->wake());                // It runs.
      EXPECT_TRUE(fiber->suspend());
      EXPECT_EQ(fiber.get(), ORVFiber::current());
    };
    EXPECT_TRUE(fiber->run(doWork, &work));
    EXPECT_EQ(nullptr, ORVFiber::current());
    EXPECT_EQ(0u, fiber->runningThread());
    EXPECT_EQ(thread, fiber->lastThread());
    EXPECT_EQ(1u, fiber->suspendCount());
    EXPECT_FALSE(fiber->run(doWork, &work));  // Its work isn't done.
    EXPECT_TRUE(fiber->wake());
    EXPECT_FALSE(fiber->wake());  // It has ended.
    EXPECT_EQ(1, fiber->getRefCount());
    bool again = false;
    work = [&] { again = true; };
    EXPECT_TRUE(fiber->run(doWork, &work));
    EXPECT_TRUE(again);
    fiber->reset();
    EXPECT_EQ(ORVFiber::kFresh, fiber->state());
    EXPECT_EQ(0u, fiber->lastThread());
  });
  EXPECT_EQ(0u, ORVFiber::aliveCount());
}

TEST(ORVFiber, runsInsideAnotherFiberAndGoesBackToIt) {
  onCleanThread([] {
    std::string order;
    ORVFiberPtr outer(new ORVFiber), inner(new ORVFiber);
    Work innerWork = [&] {
      order += 'i';
      inner->suspend();
      order += 'j';
    };
    Work outerWork = [&] {
      inner->run(doWork, &innerWork);
      EXPECT_EQ(outer.get(), ORVFiber::current());
      order += 'o';
      outer->suspend();
      order += 'p';
    };
    outer->run(doWork, &outerWork);
    order += '|';
    inner->wake();
    outer->wake();
    EXPECT_EQ("io|jp", order);
  });
}

// The thread that ran the fiber goes on while the fiber waits. One that is woken by mistake must not take
// itself for the owner. The fiber ends up on another thread, and the mutex knows it there as the same owner.
TEST(ORVFiber, leavesItsThreadFreeWhileItWaitsForAMutex) {
  Locking it;
  u32 before = 0, after = 0;
  ORVFiberPtr fiber(new ORVFiber);
  it.work = [&] {
    const KTMutexGuard guard(it.mutex), again(it.mutex);
    after = orv::platform::currentThreadId();
    it.done = true;
  };
  it.mutex.lock();
  onCleanThread([&] {
    before = orv::platform::currentThreadId();
    fiber->run(doWork, &it.work);
    for (const bool woken : {false, true}) {
      EXPECT_TRUE(!woken || fiber->wake());
      EXPECT_EQ(1u, it.mutex.waitersForTest());
      EXPECT_EQ(ORVFiber::kWaiting, fiber->state());
      EXPECT_EQ(2, fiber->getRefCount());
    }
  });
  EXPECT_FALSE(it.done);
  it.mutex.unlock();
  it.awaitEnd(*fiber);
  EXPECT_NE(before, after);
}

TEST(ORVFiber, fibersAndThreadsAreServedInOneLine) {
  KTFiberMutex mutex;
  std::string order;  // Under the mutex.
  std::vector<std::jthread> threads;
  std::vector<Work> works;
  works.reserve(8);
  mutex.lock();
  for (char name = 'a'; name < 'i'; ++name) {
    works.emplace_back([&, name] {
      const KTMutexGuard guard(mutex);
      order += name;
    });
    Work* const work = &works.back();
    if (name % 2) {
      threads.push_back(cleanThread(*work));
    } else {
      onCleanThread([=] { ORVFiberPtr(new ORVFiber)->run(doWork, work); });
    }
    await([&] { return mutex.waitersForTest() == works.size(); });
  }
  mutex.unlock();
  threads.clear();
  // The last fiber goes on in a thread that may not have begun yet.
  await([&] {
    const KTMutexGuard guard(mutex);
    return order.size() == works.size();
  });
  awaitThreads();
  EXPECT_EQ("abcdefgh", order);
  await([] { return ORVFiber::aliveCount() == 0; });
}

#if defined(__SANITIZE_THREAD__)
constexpr int kFibersEach = 50;  // The sanitizer takes milliseconds for each thread that it sees start.
#else
constexpr int kFibersEach = 250;
#endif

// Fibers by the thousand contend for two mutexes, throwing and catching as they go.
TEST(ORVFiber, standByTheThousandOnAFewThreads) {
  constexpr int kThreads = 4, kRounds = 2, kFibers = kThreads * kFibersEach;
  KTFiberMutex first, second;
  int count = 0;
  std::atomic<int> done{0};
  Work work = [&] {
    for (int round = 0; round < kRounds; ++round) {
      try {
        const KTMutexGuard guard(first);
        ++count;
        throw round;
      } catch (int caught) {
        EXPECT_EQ(round, caught);
        const KTMutexGuard guard(second);  // Perhaps on another thread, inside the handler.
        EXPECT_NE(nullptr, std::current_exception());
      }
      EXPECT_EQ(nullptr, std::current_exception());
    }
    ++done;
  };
  first.lock();
  onThreads(kThreads, [&](int) {
    onCleanThread([&] {
      for (int n = 0; n < kFibersEach; ++n) ORVFiberPtr(new ORVFiber)->run(doWork, &work);
    });
  });
  EXPECT_EQ(static_cast<u32>(kFibers), first.waitersForTest());
  EXPECT_EQ(static_cast<u32>(kFibers), ORVFiber::aliveCount());
  first.unlock();
  await([&] { return done == kFibers; });
  awaitThreads();
  EXPECT_EQ(kFibers * kRounds, count);
  await([] { return ORVFiber::aliveCount() == 0; });
}

TEST(ORVFiber, boundToItsThreadItBlocksIt) {
  ORVFiberPtr fiber(new ORVFiber);
  Locking it;
  std::latch bound(1);
  Work work = [&] {
    fiber->bindToThread();
    bound.count_down();
    EXPECT_TRUE(fiber->suspend());
    it.work();
  };
  std::jthread thread = cleanThread([&] { fiber->run(doWork, &work); });
  bound.wait();
  it.mutex.lock();
  EXPECT_TRUE(fiber->resume());
  it.awaitWaiters(1);
  it.mutex.unlock();
  thread.join();
  EXPECT_TRUE(it.done);
  EXPECT_EQ(1, fiber->getRefCount());
}

// One that the system has no thread for, as long as `refuses` says so.
class ThreadlessFiber : public ORVFiber {
 public:
  bool resume() override { return refuses ? false : ORVFiber::resume(); }
  std::atomic<bool> refuses{true};
};

// It stays in line, and gets the mutex from whoever unlocks it next, or when somebody wakes it.
TEST(ORVFiber, isNotLostWhenThereIsNoThreadToResumeItOn) {
  for (const bool wokenByHand : {false, true}) {
    Locking it;
    const KTPtr<ThreadlessFiber> fiber(new ThreadlessFiber);
    it.mutex.lock();
    onCleanThread([&] { fiber->run(doWork, &it.work); });
    std::jthread behind = cleanThread([&] { const KTMutexGuard guard(it.mutex); });
    it.awaitWaiters(2);
    it.mutex.unlock();
    behind.join();
    EXPECT_EQ(1u, it.mutex.waitersForTest());
    EXPECT_FALSE(it.done);
    if (wokenByHand) {
      onCleanThread([&] { EXPECT_TRUE(fiber->wake()); });
    } else {
      fiber->refuses = false;
      it.mutex.lock();
      it.mutex.unlock();
    }
    it.awaitEnd(*fiber);
  }
}

std::atomic<bool> gateClosed{false};  // A new thread stands still until it opens; one at a time.

// A hand-over starts a thread for the fiber, and doesn't wait until it runs.
TEST(ORVFiber, isResumedWithoutWaitingForItsThread) {
  Locking it;
  const ORVFiberPtr fiber(new ORVFiber);
  it.mutex.lock();
  onCleanThread([&] { fiber->run(doWork, &it.work); });
  gateClosed = true;
  it.mutex.unlock();
  EXPECT_FALSE(it.done);
  EXPECT_EQ(0u, it.mutex.waitersForTest());
  gateClosed = false;
  gateClosed.notify_all();
  it.awaitEnd(*fiber);
}

TEST(ORVFiberPool, handsOutTakesBackAndStopsAtItsLimit) {
  onCleanThread([] {
    ORVFiberPool pool(2);
    ORVFiberPtr first = pool.acquire(), second = pool.acquire();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(2u, pool.activeCount());
    EXPECT_FALSE(pool.acquire());
    int runs = 0;
    Work work = [&] { ++runs; };
    EXPECT_TRUE(first->run(doWork, &work));
    pool.recycle(second);
    EXPECT_EQ(2u, pool.idleCount());
    EXPECT_EQ(0u, pool.activeCount());
    const ORVFiberPtr again = pool.acquire();
    EXPECT_EQ(first.get(), again.get());  // The one that came back first.
    EXPECT_TRUE(again->run(doWork, &work));
    EXPECT_EQ(2, runs);
    EXPECT_EQ(2u, again->generation());
    EXPECT_FALSE(pool.stop());
    EXPECT_TRUE(pool.stop());
    EXPECT_FALSE(pool.acquire());
  });
  EXPECT_EQ(0u, ORVFiber::aliveCount());
}

// What was handed out before has done its work then, and nothing of the pool is touched any more.
TEST(ORVFiberPool, mayGoOnceItHasStopped) {
  for (int round = 0; round < 2 * kFibersEach; ++round) {
    auto pool = std::make_unique<ORVFiberPool>(64);
    bool done = false;
    Work work = [&] { done = true; };
    std::latch acquired(1);
    const std::jthread thread = cleanThread([&] {
      const ORVFiberPtr fiber = pool->acquire();
      acquired.count_down();
      EXPECT_TRUE(fiber->run(doWork, &work));
    });
    acquired.wait();
    EXPECT_FALSE(pool->stop());
    EXPECT_TRUE(done);
    EXPECT_EQ(0u, pool->activeCount());
    pool.reset();
  }
}

TEST(ORVFiberPool, trimKeepsFourIdleForEachActive) {
  const struct {
    u32 idle, active, left;
  } kCases[] = {{10, 0, 10}, {11, 0, 0}, {12, 2, 8}, {12, 3, 12}, {13, 3, 12}, {11, 11, 11}};
  for (const auto& c : kCases) {
    onCleanThread([&c] {
      ORVFiberPool pool(64);
      std::vector<ORVFiberPtr> fibers;
      for (u32 i = 0; i < c.idle + c.active; ++i) fibers.push_back(pool.acquire());
      for (u32 i = 0; i < c.idle; ++i) pool.recycle(fibers[i]);
      pool.trim();
      EXPECT_EQ(c.left, pool.idleCount()) << c.idle << ' ' << c.active;
      for (u32 i = 0; i < c.idle; ++i) EXPECT_EQ(i < c.idle - c.left, fibers[i]->stopRequested()) << i;
      fibers.clear();
      EXPECT_EQ(c.left, ORVFiber::aliveCount());
    });
  }
}

// A fiber goes home where there is no memory.
TEST(ORVFiberPool, takesNoMemoryToTakeAFiberBack) {
  onCleanThread([] {
    ORVFiberPool pool(2);
    int runs = 0;
    Work work = [&] { ++runs; };
    for (int round = 0; round < 2; ++round) {
      const ORVFiberPtr first = pool.acquire(), second = pool.acquire();
      orv::test::HeapWatch heap;
      heap.failAt(1);
      EXPECT_TRUE(first->run(doWork, &work));
      pool.recycle(second);
      EXPECT_TRUE(heap.failurePending());
    }
    EXPECT_EQ(2, runs);
    EXPECT_EQ(2u, pool.idleCount());
  });
}

}  // namespace

// In place of the system's: a thread that starts meanwhile waits at the gate.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                              void* argument) {
  static auto* const system = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (!gateClosed) return system(thread, attributes, run, argument);
  static void* (*runBehindGate)(void*);
  runBehindGate = run;
  const auto waitAtGate = [](void* itsArgument) {
    gateClosed.wait(true);
    return runBehindGate(itsArgument);
  };
  return system(thread, attributes, waitAtGate, argument);
}
