// A signal that one thread waits for with a mutex in hand, and the library's sleeps.

#pragma once

#include <boost/noncopyable.hpp>
#include <chrono>

#include "platform/Event.h"
#include "util/IMutex.h"

// 100 nanoseconds each.
using KTTicks = std::chrono::duration<i64, std::ratio<1, 10'000'000>>;

// How a wait ended.
inline constexpr int kWaitFailed = 0;
inline constexpr int kWaitSignalled = 1;
inline constexpr int kWaitTimedOut = 2;

// Automatic reset: one signal wakes one waiter, now or later; signals before that are absorbed.
class KTConditionSignal : private boost::noncopyable {
 public:
  KTConditionSignal() = default;
  virtual ~KTConditionSignal() = default;

  // Unlock `held` once, wait, and lock it again, whatever the outcome. A signal between unlocking and waiting
  // isn't lost. Return one of the three results above.
  int wait(IMutex& held);
  int wait(IMutex& held, u32 milliseconds);
  // Counts whole milliseconds; a negative limit is 0. No limit means for ever.
  int wait(IMutex& held, KTTicks limit);

  void signal() { event_.signal(); }

 private:
  orv::platform::Event event_;
};

namespace orv::util {

// Fractions of a millisecond and negative times count as nothing.
void yield();
void sleepSeconds(double seconds);
void sleepMilliseconds(double milliseconds);
void sleepTicks(u64 ticks);

}  // namespace orv::util
