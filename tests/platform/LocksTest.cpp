#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/CriticalSection.h"
#include "platform/Event.h"
#include "support/Threads.h"

namespace orv::platform {
namespace {

using test::onThreads;

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
  const std::jthread signaller([&] {
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
  EXPECT_EQ(0, left);
}

}  // namespace
}  // namespace orv::platform
