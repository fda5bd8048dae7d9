#include "platform/Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace orv::platform {

namespace {

static_assert(sizeof(std::atomic<u32>) == sizeof(u32) && std::atomic<u32>::is_always_lock_free);

timespec toTimespec(Deadline deadline) {
  const auto sinceStart = deadline.time_since_epoch();  // steady_clock counts from CLOCK_MONOTONIC's zero.
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceStart);
  const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(sinceStart - seconds);
  return {static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
}

}  // namespace

FutexWait futexWait(std::atomic<u32>& word, u32 expected, std::optional<Deadline> deadline) {
  timespec until{};
  if (deadline) until = toTimespec(*deadline);
  const long result = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, expected,
                              deadline ? &until : nullptr, nullptr, FUTEX_BITSET_MATCH_ANY);
  return result == -1 && errno == ETIMEDOUT ? FutexWait::TimedOut : FutexWait::Woken;
}

void futexWakeOne(std::atomic<u32>& word) {
  syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1);
}

}  // namespace orv::platform
