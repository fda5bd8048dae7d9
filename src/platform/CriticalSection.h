// A recursive lock of the calling thread.

#pragma once

#include <sys/single_threaded.h>

#include <atomic>

#include "platform/Thread.h"
#include "platform/Types.h"

namespace orv::platform {

// Free, entering costs one atomic instruction and leaving another; taken, the caller sleeps in the kernel.
// Who waits is woken in no stated order. Needs no construction at run time, so that one in static storage is
// good from the first instruction on.
class CriticalSection {
 public:
  constexpr CriticalSection() = default;
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void enter() {
    const ThreadId me = currentThreadId();
    if (const u32 held = claim(me)) enterHeld(me, held);
  }

  // Once for each `enter`. Nothing of the section is touched once another thread can have it, so that the one
  // who gets it may destroy it.
  void leave() {
    const u32 depth = depth_.load(std::memory_order_relaxed);
    if (depth != 0) {
      depth_.store(depth - 1, std::memory_order_relaxed);
      return;
    }
    if (clearWord() & kSleepers) wakeSleeper();
  }

  bool isHeldByCaller() const {
    return (word_.load(std::memory_order_relaxed) & ~kSleepers) == currentThreadId();
  }

  // How often `enter` tries a taken section again before it sleeps; 0 at the start. Gives the earlier count.
  u32 setSpinCount(u32 count) { return spinCount_.exchange(count, std::memory_order_relaxed); }

 private:
  static constexpr u32 kSleepers = 0x80000000;  // Somebody may be asleep on the word.

  // Takes the section if it is free; gives what the word held. In both of these the thread that is alone may
  // go without atomic instructions: whoever starts a second one hands it all that was stored before.
  u32 claim(u32 mark) {
    u32 held = 0;
    if (!__libc_single_threaded) {
      word_.compare_exchange_strong(held, mark, std::memory_order_acquire, std::memory_order_relaxed);
    } else if (held = word_.load(std::memory_order_relaxed); held == 0) {
      word_.store(mark, std::memory_order_relaxed);
    }
    return held;
  }

  u32 clearWord() {
    if (!__libc_single_threaded) return word_.exchange(0, std::memory_order_release);
    const u32 held = word_.load(std::memory_order_relaxed);
    word_.store(0, std::memory_order_relaxed);
    return held;
  }

  void enterHeld(ThreadId me, u32 held);
  void sleepUntilTaken(ThreadId me);
  void wakeSleeper();

  std::atomic<u32> word_{0};   // The holder's thread id and kSleepers; 0 when free.
  std::atomic<u32> depth_{0};  // Entries beyond the first. The holder's.
  std::atomic<u32> spinCount_{0};
};

class SectionGuard {
 public:
  explicit SectionGuard(CriticalSection& section) : section_(section) { section_.enter(); }
  ~SectionGuard() { section_.leave(); }
  SectionGuard(const SectionGuard&) = delete;
  SectionGuard& operator=(const SectionGuard&) = delete;

 private:
  CriticalSection& section_;
};

}  // namespace orv::platform
