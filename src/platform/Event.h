// An event with automatic reset.

#pragma once

#include <atomic>

#include "platform/Types.h"

namespace orv::platform {

// A signal stays until one wait takes it; further signals before that add nothing. Any number of threads may
// wait and signal.
class Event {
 public:
  constexpr Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  // Touches nothing of the event once a waiter can have seen the signal.
  void signal();
  void wait();
  // False when the time ran out; 0 looks and returns at once.
  bool wait(u32 milliseconds);

 private:
  bool take(u32 left);

  std::atomic<u32> state_{0};
};

}  // namespace orv::platform
