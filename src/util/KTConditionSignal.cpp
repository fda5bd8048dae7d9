#include "util/KTConditionSignal.h"

#include <algorithm>
#include <limits>

#include "platform/Thread.h"

namespace {

constexpr u32 kLongest = std::numeric_limits<u32>::max();

u32 toMilliseconds(double value) {
  if (!(value > 0)) return 0;  // A NaN too.
  return value < double{kLongest} ? static_cast<u32>(value) : kLongest;
}

u64 toMilliseconds(u64 ticks) {
  return ticks / 10 / 1000;
}

}  // namespace

int KTConditionSignal::wait(IMutex& held) {
  held.unlock();
  event_.wait();
  held.lock();
  return kWaitSignalled;
}

int KTConditionSignal::wait(IMutex& held, u32 milliseconds) {
  held.unlock();
  const bool signalled = event_.wait(milliseconds);
  held.lock();
  return signalled ? kWaitSignalled : kWaitTimedOut;
}

int KTConditionSignal::wait(IMutex& held, KTTicks limit) {
  const u64 ticks = static_cast<u64>(std::max<i64>(limit.count(), 0));
  return wait(held, static_cast<u32>(std::min<u64>(toMilliseconds(ticks), kLongest)));
}

namespace orv::util {

void yield() {
  platform::yieldThread();
}
void sleepSeconds(double seconds) {
  platform::sleepThread(toMilliseconds(seconds * 1000.0));
}
void sleepMilliseconds(double milliseconds) {
  platform::sleepThread(toMilliseconds(milliseconds));
}
void sleepTicks(u64 ticks) {
  platform::sleepThread(static_cast<u32>(std::min<u64>(toMilliseconds(ticks), kLongest)));
}

}  // namespace orv::util
