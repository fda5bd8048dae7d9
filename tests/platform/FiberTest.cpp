#include "platform/FiberSwitch.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

namespace orv::platform {
namespace {

template <class Body>
void onConvertedThread(Body body) {
  std::thread([&] {
    ASSERT_NE(nullptr, convertThreadToFiber());
    EXPECT_EQ(convertThreadToFiber(), currentFiber());
    body();
    convertFiberToThread();
    EXPECT_EQ(nullptr, currentFiber());
  }).join();
}

TEST(Fiber, refusesWhatItCannotSwitchTo) {
  const FiberEntry nothing = [](void*) {};
  EXPECT_EQ(nullptr, currentFiber());
  Fiber* const other = createFiber(65536, nothing, nullptr);
  EXPECT_FALSE(switchToFiber(other));  // From a thread that was not converted.
  onConvertedThread([] {
    EXPECT_FALSE(switchToFiber(nullptr));
    EXPECT_FALSE(switchToFiber(currentFiber()));
  });
  deleteFiber(other);
  deleteFiber(nullptr);
  EXPECT_EQ(nullptr, createFiber(~std::size_t{0}, nothing, nullptr));
  EXPECT_EQ(nullptr, createFiber(std::size_t{1} << 60, nothing, nullptr));
}

// The two sides of a switch.
struct Talk {
  Fiber* main = nullptr;
  Fiber* fiber = nullptr;
  std::string text;
};

// Throws, and leaves the fiber while it handles that; the other side does the same meanwhile. Then it goes on
// on another thread.
TEST(Fiber, carriesItsExceptionsFromThreadToThread) {
  Talk talk;
  const auto main = [](void* raw) {
    Talk& mine = *static_cast<Talk*>(raw);
    convertFiberToThread();  // Not from here.
    EXPECT_EQ(mine.fiber, currentFiber());
    try {
      throw std::string("inner");
    } catch (const std::string&) {
      switchToFiber(mine.main);
      EXPECT_EQ(0, std::uncaught_exceptions());
      try {
        throw;
      } catch (const std::string& caught) {
        mine.text = caught;
      }
    }
    EXPECT_EQ(nullptr, std::current_exception());
    leaveFiberFor(mine.main);
  };
  onConvertedThread([&] {
    talk.main = currentFiber();
    talk.fiber = createFiber(262144, main, &talk);
    ASSERT_NE(nullptr, talk.fiber);
    try {
      throw 7;
    } catch (int) {
      EXPECT_TRUE(switchToFiber(talk.fiber));
      EXPECT_EQ(talk.main, currentFiber());
      try {
        throw;
      } catch (int caught) {
        EXPECT_EQ(7, caught);
      }
    }
    EXPECT_EQ(nullptr, std::current_exception());
  });
  onConvertedThread([&] {
    talk.main = currentFiber();
    switchToFiber(talk.fiber);
    EXPECT_EQ(nullptr, std::current_exception());
  });
  EXPECT_EQ("inner", talk.text);
  deleteFiber(talk.fiber);
}

[[gnu::noinline]] int useStack(int pages) {
  volatile char frame[4096];
  frame[0] = static_cast<char>(pages);
  return pages == 0 ? 0 : useStack(pages - 1) + frame[0];
}

// One frame that reaches from the bottom of a stack beyond a few pages; only its far end is touched, as code
// that is built without probes does.
[[gnu::noinline]] void jumpOver() {
  auto* const far = static_cast<volatile char*>(__builtin_frame_address(0)) - 262144 - 16384;
  *far = 1;
}

// With another fiber's stack straight below, if the system has it so.
void runOnAFiber(FiberEntry entry) {
  std::signal(SIGSEGV, SIG_DFL);
  convertThreadToFiber();
  Fiber* const fiber = createFiber(262144, entry, nullptr);
  createFiber(262144, entry, nullptr);
  switchToFiber(fiber);
}

TEST(FiberDeathTest, anOverflowOrAnEscapedExceptionEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(runOnAFiber([](void*) { useStack(70); }), "");  // Into the guard.
  EXPECT_DEATH(runOnAFiber([](void*) {
                 jumpOver();
                 std::_Exit(0);
               }),
               "");
  EXPECT_DEATH(runOnAFiber([](void*) { throw std::runtime_error("left the fiber"); }), "left the fiber");
}

}  // namespace
}  // namespace orv::platform
