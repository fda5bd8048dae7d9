// The kernel's wait queue on a 32-bit word: what the locks of this folder sleep on.

#pragma once

#include <atomic>
#include <chrono>
#include <optional>

#include "platform/Types.h"

namespace orv::platform {

using Deadline = std::chrono::time_point<std::chrono::steady_clock>;

enum class FutexWait { Woken, TimedOut };

// Sleeps while `word` holds `expected`. Returns Woken also when it doesn't, and now and then for no reason:
// the caller must look again.
FutexWait futexWait(std::atomic<u32>& word, u32 expected, std::optional<Deadline> deadline = std::nullopt);

// Wakes one sleeper, if there is one. `word` is only a key here: its memory may be gone.
void futexWakeOne(std::atomic<u32>& word);

// Lets the processor rest in a spin loop.
inline void spinPause() {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#endif
}

}  // namespace orv::platform
