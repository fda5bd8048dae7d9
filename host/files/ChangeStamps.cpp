#include "host/files/ChangeStamps.h"

#include <ctime>

namespace orv::host {

namespace {

constexpr i64 kNanosecond = 1'000'000'000;
// Above the longest tick that Linux is built with (10 ms).
constexpr i64 kSettleTime = 20'000'000;

i64 nanoseconds(const timespec& time) {
  return time.tv_sec * kNanosecond + time.tv_nsec;
}

}  // namespace

i64 systemTime() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return nanoseconds(time);
}

u32 ChangeStamps::of(const struct stat& status) {
  const i64 changed = nanoseconds(status.st_ctim);
  const State state{nanoseconds(status.st_mtim), changed, status.st_size, now_() - changed >= kSettleTime};
  const std::lock_guard lock(mutex_);
  const auto [place, isNew] = entries_.try_emplace({status.st_dev, status.st_ino}, Entry{state, 0});
  Entry& entry = place->second;
  if (isNew || entry.state != state) entry = {state, deal()};
  return entry.stamp;
}

void ChangeStamps::noteWrite(dev_t device, ino_t inode) {
  const std::lock_guard lock(mutex_);
  const auto place = entries_.find({device, inode});
  // A file that nobody has looked at yet gets a fresh stamp anyway.
  if (place != entries_.end()) place->second.stamp = deal();
}

}  // namespace orv::host
