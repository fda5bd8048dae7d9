#include "util/KTThreadOnlyMutex.h"

#include <atomic>

#include "util/KTThrowable.h"
#include "util/ThreadSlots.h"

namespace {

constinit std::atomic<bool> tracking{false};

// The slot holds the number itself: counting can't run out of memory with the lock taken.
void setTrackedDepth(std::uintptr_t depth) {
  slotSet(kSlotTrackedDepth, reinterpret_cast<void*>(depth), nullptr);
}

}  // namespace

bool KTThreadOnlyMutex::lock() {
  section_.enter();
  onLocked();
  return true;
}

bool KTThreadOnlyMutex::unlock() {
  onUnlocking();
  KT_ASSERT(section_.isHeldByCaller());
  section_.leave();
  return true;
}

void KTThreadOnlyMutex::onLocked() {
  if (tracked_ && tracking.load(std::memory_order_relaxed)) setTrackedDepth(trackedDepth() + 1);
}

void KTThreadOnlyMutex::onUnlocking() {
  if (!tracked_ || !tracking.load(std::memory_order_relaxed)) return;
  const u32 depth = trackedDepth();
  KT_ASSERT(depth > 0);
  if (depth > 0) setTrackedDepth(depth - 1);  // 0 for a lock that was taken before tracking went on.
}

void KTThreadOnlyMutex::setTracking(bool on) {
  tracking.store(on, std::memory_order_relaxed);
}

u32 KTThreadOnlyMutex::trackedDepth() {
  return static_cast<u32>(reinterpret_cast<std::uintptr_t>(slotGet(kSlotTrackedDepth)));
}
