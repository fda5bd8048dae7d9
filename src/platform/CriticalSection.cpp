#include "platform/CriticalSection.h"

#include "platform/Futex.h"

namespace orv::platform {

void CriticalSection::waitForIt() {
  for (u32 tries = spinCount_.load(std::memory_order_relaxed); tries > 0; --tries) {
    spinPause();
    if (word_.load(std::memory_order_relaxed) == kFree && claim(kTaken) == kFree) return;
  }
  sleepUntilTaken();
}

void CriticalSection::sleepUntilTaken() {
  u32 mark = kTaken;
  while (u32 held = claim(mark)) {
    if (held == kTaken && !word_.compare_exchange_strong(held, kAwaited)) continue;
    futexWait(word_, kAwaited);
    mark = kAwaited;  // Others may still sleep: whoever slept once keeps the mark up for them.
  }
}

void CriticalSection::wakeSleeper() {
  futexWakeOne(word_);
}

}  // namespace orv::platform
