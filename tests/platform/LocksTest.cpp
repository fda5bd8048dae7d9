#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/CriticalSection.h"
#include "platform/Event.h"
#include "platform/Thread.h"
#include "platform/ThreadLocal.h"

namespace orv::platform {
namespace {

template <class Body>
void onThreads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
  for (auto& thread : threads) thread.join();
}

TEST(CriticalSection, isRecursiveAndKnowsItsThread) {
  CriticalSection section;
  EXPECT_FALSE(section.isHeldByCaller());
  for (int i = 0; i < 3; ++i) section.enter();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(section.isHeldByCaller());
    std::thread([&] { EXPECT_FALSE(section.isHeldByCaller()); }).join();
    section.leave();
  }
  EXPECT_FALSE(section.isHeldByCaller());
  std::thread([&] { const SectionGuard guard(section); }).join();
}

TEST(CriticalSection, excludesAsleepOrSpinning) {
  constexpr int kThreads = 4, kRounds = 20'000;
  for (const u32 spins : {0u, 1000u}) {
    CriticalSection section;
    EXPECT_EQ(0u, section.setSpinCount(spins));
    int count = 0;
    onThreads(kThreads, [&](int) {
      for (int i = 0; i < kRounds; ++i) {
        const SectionGuard outer(section);
        const SectionGuard inner(section);
        ++count;
      }
    });
    EXPECT_EQ(kThreads * kRounds, count);
    EXPECT_EQ(spins, section.setSpinCount(7));
  }
}

TEST(Event, keepsOneSignalUntilAWaitTakesIt) {
  Event event;
  EXPECT_FALSE(event.wait(0));
  event.signal();
  event.signal();
  event.wait();
  EXPECT_FALSE(event.wait(1));
}

// Waiters that give up must not take the wake of those who stay.
TEST(Event, givesEachSignalToOneWaiter) {
  constexpr int kWaiters = 3, kSignals = 3000;
  Event event, taken;
  std::atomic<int> left{kSignals};
  std::thread signaller([&] {
    for (int i = 0; i < kSignals; ++i) {
      event.signal();
      taken.wait();
    }
  });
  onThreads(kWaiters, [&](int i) {
    while (left > 0) {
      if (!event.wait(static_cast<u32>(i))) continue;  // One of them with no patience at all.
      --left;
      taken.signal();
    }
  });
  signaller.join();
  EXPECT_EQ(0, left);
}

TEST(ThreadLocal, keepsAPointerForEachThreadUntilTheIndexGoesBack) {
  ThreadLocal local;
  EXPECT_EQ(nullptr, local.get());
  onThreads(4, [&](int) {
    int mine = 0;
    EXPECT_EQ(nullptr, local.get());
    EXPECT_TRUE(local.set(&mine));
    EXPECT_EQ(&mine, local.get());
  });
  int value = 0;
  for (int round = 0; round < 2000; ++round) {  // More often than the system has indexes.
    ASSERT_TRUE(local.set(&value));
    ASSERT_EQ(&value, local.get());
    local.giveBack();
    ASSERT_EQ(nullptr, local.get());
  }
}

TEST(Thread, startsWithTheNumberThatItKnowsItselfBy) {
  struct Call {
    Event go, done;
    ThreadId seen = 0;
  } call;
  const ThreadId started = startThread(
      [](void* raw) -> u32 {
        auto& mine = *static_cast<Call*>(raw);
        mine.go.wait();
        mine.seen = currentThreadId();
        mine.done.signal();
        return 0;
      },
      &call);
  ASSERT_NE(0u, started);
  EXPECT_NE(currentThreadId(), started);
  EXPECT_FALSE(threadHasEnded(started));
  call.go.signal();
  call.done.wait();
  EXPECT_EQ(started, call.seen);
  while (!threadHasEnded(started)) yieldThread();
}

}  // namespace
}  // namespace orv::platform
