#include "platform/FiberSwitch.h"

#include <gtest/gtest.h>

#include <csignal>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

namespace orv::platform {
namespace {

// Two fibers that write what they see into one text.
struct Talk {
  Fiber* main = nullptr;
  Fiber* fiber = nullptr;
  std::string text;
};

Talk& talkOf(void* raw) {
  return *static_cast<Talk*>(raw);
}

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

TEST(Fiber, goesOnWhereItWasLeft) {
  onConvertedThread([] {
    Talk talk;
    talk.main = currentFiber();
    talk.fiber = createFiber(
        65536,
        [](void* raw) {
          Talk& mine = talkOf(raw);
          for (int i = 0;; ++i) {
            EXPECT_EQ(mine.fiber, currentFiber());
            convertFiberToThread();  // Not from here.
            mine.text += static_cast<char>('a' + i);
            switchToFiber(mine.main);
          }
        },
        &talk);
    ASSERT_NE(nullptr, talk.fiber);
    for (int i = 0; i < 3; ++i) {
      EXPECT_TRUE(switchToFiber(talk.fiber));
      EXPECT_EQ(talk.main, currentFiber());
      talk.text += '|';
    }
    EXPECT_EQ("a|b|c|", talk.text);
    deleteFiber(talk.fiber);
  });
}

TEST(Fiber, refusesWhatItCannotSwitchTo) {
  EXPECT_EQ(nullptr, currentFiber());
  Fiber* const other = createFiber(
      65536, [](void*) {}, nullptr);
  EXPECT_FALSE(switchToFiber(other));  // From a thread that was not converted.
  onConvertedThread([] {
    EXPECT_FALSE(switchToFiber(nullptr));
    EXPECT_FALSE(switchToFiber(currentFiber()));
  });
  deleteFiber(other);
  deleteFiber(nullptr);
  EXPECT_EQ(nullptr, createFiber(
                         ~std::size_t{0}, [](void*) {}, nullptr));
  EXPECT_EQ(nullptr, createFiber(
                         std::size_t{1} << 60, [](void*) {}, nullptr));
}

// Throws, and leaves the fiber while it handles that; the other side does the same meanwhile. Then it goes on
// on another thread.
TEST(Fiber, carriesItsExceptionsFromThreadToThread) {
  Talk talk;
  const auto main = [](void* raw) {
    Talk& mine = talkOf(raw);
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
    try {
      throw 7;
    } catch (int) {
      switchToFiber(talk.fiber);
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

TEST(FiberDeathTest, anOverflowHitsTheGuardPage) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto overflow = [] {
    std::signal(SIGSEGV, SIG_DFL);
    convertThreadToFiber();
    switchToFiber(createFiber(
        65536, [](void*) { useStack(20); }, nullptr));
  };
  EXPECT_DEATH(overflow(), "");
}

TEST(FiberDeathTest, anEscapedExceptionEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto escape = [] {
    convertThreadToFiber();
    switchToFiber(createFiber(
        262144, [](void*) { throw std::runtime_error("left the fiber"); }, nullptr));
  };
  EXPECT_DEATH(escape(), "left the fiber");
}

}  // namespace
}  // namespace orv::platform
