#include "platform/Clock.h"

#include <ctime>

namespace orv::platform {

namespace {

std::timespec read(clockid_t clock) {
  std::timespec time{};
  clock_gettime(clock, &time);
  return time;
}

}  // namespace

i64 systemTicks() {
  const std::timespec time = read(CLOCK_REALTIME);
  return i64{time.tv_sec} * 10'000'000 + time.tv_nsec / 100;
}

u64 steadyMilliseconds() {
  const std::timespec time = read(CLOCK_MONOTONIC);
  return static_cast<u64>(time.tv_sec) * 1000 + static_cast<u64>(time.tv_nsec) / 1'000'000;
}

}  // namespace orv::platform
