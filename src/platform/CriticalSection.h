// A recursive lock of the calling thread.

#pragma once

#include <sys/single_threaded.h>

#include <atomic>

#include "platform/Sanitizers.h"
#include "platform/Thread.h"
#include "platform/Types.h"

namespace orv::platform {

// Entering a free section costs one atomic instruction, leaving it another; when it is taken, the caller
// sleeps in the kernel. Waiters are woken in no stated order. Needs no construction at run time: one in
// static storage works from the first instruction on. Whoever forks with a section entered holds it in the
// child too.
class CriticalSection {
 public:
  // The thread sanitizer takes a section for a mutex, which must be left on the thread that entered it. One
  // that changes hands is plain memory to it.
  enum Handling : bool { kStaysWithThread, kChangesHands };

  constexpr CriticalSection() = default;
  explicit constexpr CriticalSection(Handling handling) : handling_(handling) {}
#if defined(ORV_TSAN)
  ~CriticalSection() {
    if (handling_ == kStaysWithThread) sanitizer::lockGone(this);
  }
#endif
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void enter() {
    const ThreadToken me = currentThreadToken();
    if (holder_.load(std::memory_order_relaxed) == me) {
      depth_.store(depth_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      return;
    }
    if (handling_ == kStaysWithThread) sanitizer::locking(this);
    if (claim(kTaken) != kFree) waitForIt();
    holder_.store(me, std::memory_order_relaxed);
    if (handling_ == kStaysWithThread) sanitizer::locked(this);
  }

  // Call once for each `enter`. Touches nothing of the section once another thread can have it, so the next
  // holder may destroy it.
  void leave() {
    const u32 depth = depth_.load(std::memory_order_relaxed);
    if (depth != 0) {
      depth_.store(depth - 1, std::memory_order_relaxed);
      return;
    }
    const bool seen = handling_ == kStaysWithThread;
    if (seen) sanitizer::unlocking(this);
    if (release() == kAwaited) wakeSleeper();
    if (seen) sanitizer::unlocked(this);
  }

  bool isHeldByCaller() const {
    return holder() == currentThreadToken();
  }

  // Returns the thread that is inside; 0 if there is none.
  ThreadToken holder() const {
    return holder_.load(std::memory_order_relaxed);
  }

  // Sets how often `enter` tries a taken section again before it sleeps; 0 at the start. Returns the earlier
  // count.
  u32 setSpinCount(u32 count) {
    return spinCount_.exchange(count, std::memory_order_relaxed);
  }

  // The same without a word to the thread sanitizer, for a fork (platform/Fork.h), which holds more sections
  // at once than the sanitizer can count. The first returns false when the section is taken, even by the
  // caller.
  bool tryEnterUnseen() {
    if (claim(kTaken) != kFree) return false;
    holder_.store(currentThreadToken(), std::memory_order_relaxed);
    return true;
  }
  void enterUnseen() {
    if (claim(kTaken) != kFree) waitForIt();
    holder_.store(currentThreadToken(), std::memory_order_relaxed);
  }
  void leaveUnseen() {
    if (release() == kAwaited) wakeSleeper();
  }

 private:
  static constexpr u32 kFree = 0;
  static constexpr u32 kTaken = 1;
  static constexpr u32 kAwaited = 2;  // Taken, and somebody may be asleep on the word.

  // Takes a free section; returns what the word held. In both of these the only thread of a process may go
  // without atomic instructions: whoever starts a second one hands it all that was stored before.
  u32 claim(u32 mark) {
    u32 held = kFree;
    if (!__libc_single_threaded) {
      word_.compare_exchange_strong(held, mark, std::memory_order_acquire, std::memory_order_relaxed);
    } else if (held = word_.load(std::memory_order_relaxed); held == kFree) {
      word_.store(mark, std::memory_order_relaxed);
    }
    return held;
  }

  u32 release() {
    holder_.store(0, std::memory_order_relaxed);
    if (!__libc_single_threaded) return word_.exchange(kFree, std::memory_order_release);
    const u32 held = word_.load(std::memory_order_relaxed);
    word_.store(kFree, std::memory_order_relaxed);
    return held;
  }

  void waitForIt();
  void sleepUntilTaken();
  void wakeSleeper();

  std::atomic<ThreadToken> holder_{0};
  std::atomic<u32> word_{kFree};
  std::atomic<u32> depth_{0};  // Entries beyond the first. The holder's.
  std::atomic<u32> spinCount_{0};
  const Handling handling_ = kStaysWithThread;
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
