#include "util/KTThreads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>

#include "platform/Thread.h"
#include "util/ORVFiberPool.h"
#include "util/Work.h"

namespace {

using orv::test::await;
using orv::test::onThreads;

struct CountingOnce : orv::util::hidden::IOnce {
  void run() override {
    std::this_thread::yield();
    ++runs;
  }
  int runs = 0;
};

TEST(runOnce, runsOnceForItsFlagOnAllThreads) {
  boost::once_flag flag = BOOST_ONCE_INIT;
  constexpr int kThreads = 8;
  CountingOnce action;
  std::latch together(kThreads);
  onThreads(kThreads, [&](int) {
    together.arrive_and_wait();
    runOnce(flag, action);
    EXPECT_EQ(1, action.runs);  // Done when any call returns.
  });
}

KTThread* worker() {
  return static_cast<KTThread*>(static_cast<IWorker*>(slotGet(kSlotWorker)));
}

TEST(startThread, givesTheThreadAWorkerThatTheLibraryFindsById) {
  std::latch enrolled(1), valuesSet(1);
  Work work = [&] {
    enrolled.count_down();
    ASSERT_NE(nullptr, worker());
    EXPECT_EQ(kWorkerThread, worker()->workerType());
    EXPECT_EQ(orv::platform::currentThreadId(), worker()->threadId);
    EXPECT_EQ(orv::platform::currentProcessId(), worker()->processId);
    EXPECT_EQ(1u, runningThreadCount());
    valuesSet.wait();
    EXPECT_TRUE(worker()->userValue1 == 17 && worker()->userValue2 == 4);
  };
  setUserValues(1, 2, 3);  // Nobody's.
  const u32 id = startThread(doWork, &work, 0);
  ASSERT_NE(0u, id);
  enrolled.wait();
  setUserValues(id, 17, 4);
  setUserValues(id + 1, 8, 8);
  valuesSet.count_down();
  awaitThreads();
}

// The fiber on which a new thread runs `work`; null for none.
ORVFiber* fiberOfNewThread(
    u32 options, const Work& work = [] {}) {
  const u32 running = runningThreadCount();
  std::promise<ORVFiber*> fiber;
  Work call = [&] {
    work();
    fiber.set_value(ORVFiber::current());
  };
  EXPECT_NE(0u, startThread(doWork, &call, options));
  ORVFiber* const found = fiber.get_future().get();
  awaitThreads(running);
  return found;
}

TEST(startThread, runsOnAFiberWhereAskedAndAllowedAndToBeHad) {
  EXPECT_EQ(nullptr, fiberOfNewThread(0));
  EXPECT_NE(nullptr, fiberOfNewThread(kThreadWithFiber));
  setThreadFibers(false);
  EXPECT_EQ(nullptr, fiberOfNewThread(kThreadWithFiber));
  setThreadFibers(true);

  ORVFiberPool pool(1);
  fiberPool = &pool;
  const auto takeOneMore = [] { EXPECT_EQ(nullptr, fiberOfNewThread(kThreadWithFiber)); };
  EXPECT_NE(nullptr, fiberOfNewThread(kThreadWithFiber, takeOneMore));
  EXPECT_FALSE(pool.stop());
  fiberPool = nullptr;
}

// The function waits on its fiber: its thread ends, and another one takes the function to its end.
TEST(startThread, endsWhileItsFunctionWaits) {
  Locking it;
  it.mutex.lock();
  const u32 id = startThread(doWork, &it.work, kThreadWithFiber);
  it.awaitWaiters(1);
  await([&] { return orv::platform::threadHasEnded(id); });
  it.mutex.unlock();
  it.awaitEnd();
}

}  // namespace
