#include "platform/CriticalSection.h"

#include "platform/Futex.h"

namespace orv::platform {

void CriticalSection::enterHeld(ThreadId me, u32 seen) {
  if ((seen & ~kSleepers) == me) {
    depth_.store(depth_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return;
  }
  for (u32 tries = spinCount_.load(std::memory_order_relaxed); tries > 0; --tries) {
    spinPause();
    if (tryTake(me)) return;
  }
  sleepUntilTaken(me);
}

void CriticalSection::sleepUntilTaken(ThreadId me) {
  u32 mark = me;
  while (!tryTake(mark)) {
    u32 seen = word_.load(std::memory_order_relaxed);
    if (seen == 0) continue;
    if (!(seen & kSleepers) && !word_.compare_exchange_strong(seen, seen | kSleepers)) continue;
    futexWait(word_, seen | kSleepers);
    mark = me | kSleepers;  // Others may sleep still: whoever slept once keeps the mark up for them.
  }
}

bool CriticalSection::tryTake(u32 mark) {
  u32 free = 0;
  return word_.load(std::memory_order_relaxed) == 0 &&
         word_.compare_exchange_strong(free, mark, std::memory_order_acquire, std::memory_order_relaxed);
}

void CriticalSection::wakeSleeper() {
  futexWakeOne(word_);
}

}  // namespace orv::platform
