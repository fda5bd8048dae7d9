#include "platform/CriticalSection.h"

#include "platform/Futex.h"

namespace orv::platform {

void CriticalSection::enterHeld(ThreadId me, u32 held) {
  if ((held & ~kSleepers) == me) {
    depth_.store(depth_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return;
  }
  for (u32 tries = spinCount_.load(std::memory_order_relaxed); tries > 0; --tries) {
    spinPause();
    if (word_.load(std::memory_order_relaxed) == 0 && claim(me) == 0) return;
  }
  sleepUntilTaken(me);
}

void CriticalSection::sleepUntilTaken(ThreadId me) {
  u32 mark = me;
  while (u32 held = claim(mark)) {
    if (!(held & kSleepers) && !word_.compare_exchange_strong(held, held | kSleepers)) continue;
    futexWait(word_, held | kSleepers);
    mark = me | kSleepers;  // Others may sleep still: whoever slept once keeps the mark up for them.
  }
}

void CriticalSection::wakeSleeper() {
  futexWakeOne(word_);
}

}  // namespace orv::platform
