#include "platform/Event.h"

#include "platform/Futex.h"

namespace orv::platform {

namespace {

constexpr u32 kUnset = 0;
constexpr u32 kSet = 1;
constexpr u32 kAwaited = 2;  // Unset, and somebody may be asleep.

// Announces a sleeper. A signal that comes before the sleep makes it return at once.
void announce(std::atomic<u32>& state) {
  u32 seen = kUnset;
  state.compare_exchange_strong(seen, kAwaited, std::memory_order_relaxed);
}

}  // namespace

void Event::signal() {
  if (state_.exchange(kSet, std::memory_order_release) == kAwaited) futexWakeOne(state_);
}

bool Event::take(u32 left) {
  u32 seen = kSet;
  return state_.compare_exchange_strong(seen, left, std::memory_order_acquire, std::memory_order_relaxed);
}

// A thread that has slept leaves kAwaited behind, for others may still sleep; at worst the next signal wakes
// nobody.
void Event::wait() {
  u32 left = kUnset;
  while (!take(left)) {
    announce(state_);
    futexWait(state_, kAwaited);
    left = kAwaited;
  }
}

// A waiter whose time is up still announces: the signal that woke it may have gone to another thread, and
// those that sleep on must not be forgotten.
bool Event::wait(u32 milliseconds) {
  const Deadline deadline = Deadline::clock::now() + std::chrono::milliseconds(milliseconds);
  u32 left = kUnset;
  while (!take(left)) {
    announce(state_);
    if (futexWait(state_, kAwaited, deadline) == FutexWait::TimedOut) return take(kAwaited);
    left = kAwaited;
  }
  return true;
}

}  // namespace orv::platform
