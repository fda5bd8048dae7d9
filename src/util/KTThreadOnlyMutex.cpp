#include "util/KTThreadOnlyMutex.h"

#include <atomic>

#include "util/ThreadSlots.h"

namespace {

constinit std::atomic<bool> tracking{false};

u32* depthOfThread() {
  return static_cast<u32*>(slotGet(kSlotTrackedDepth));
}

void deleteDepth(void* depth) {
  delete static_cast<u32*>(depth);
}

u32& makeDepthOfThread() {
  if (u32* const depth = depthOfThread()) return *depth;
  auto* const depth = new u32{0};
  slotSet(kSlotTrackedDepth, depth, deleteDepth);
  return *depth;
}

}  // namespace

bool KTThreadOnlyMutex::lock() {
  section_.enter();
  onLocked();
  return true;
}

bool KTThreadOnlyMutex::unlock() {
  onUnlocking();
  section_.leave();
  return true;
}

void KTThreadOnlyMutex::onLocked() {
  if (tracked_ && tracking.load(std::memory_order_relaxed)) ++makeDepthOfThread();
}

void KTThreadOnlyMutex::onUnlocking() {
  if (tracked_ && tracking.load(std::memory_order_relaxed)) --makeDepthOfThread();
}

void KTThreadOnlyMutex::setTracking(bool on) {
  tracking.store(on, std::memory_order_relaxed);
}

u32 KTThreadOnlyMutex::trackedDepth() {
  const u32* const depth = depthOfThread();
  return depth ? *depth : 0;
}
