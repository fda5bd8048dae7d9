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

  // Touches nothing of the event once a waiter can have seen the signal, so that one may destroy it.
  void signal();
  void wait();
  // Returns false when the time runs out; a limit of 0 only looks.
  bool wait(u32 milliseconds);

 private:
  bool take(u32 left);

  std::atomic<u32> state_{0};
};

}  // namespace orv::platform
