#include "util/ORVFiberPool.h"

#include <new>
#include <utility>

#include "util/KTThrowable.h"

namespace {

constexpr u32 kStopSteps = 10;
constexpr u32 kStopStepMilliseconds = 1000;
constexpr u32 kTrimFrom = 11;
constexpr u32 kIdlePerActive = 4;

}  // namespace

constinit std::atomic<ORVFiberPool*> fiberPool{nullptr};

ORVFiberPtr acquireFiber(ORVFiberPool* pool) {
  return pool ? pool->acquire() : ORVFiberPtr(new (std::nothrow) ORVFiber);
}

ORVFiberPtr ORVFiberPool::acquire() {
  const KTMutexGuard guard(lock_);
  if (stopping_) return nullptr;
  ORVFiberPtr fiber = idle_.empty() ? makeFiber() : takeIdle();
  if (fiber) ++activeCount_;
  return fiber;
}

ORVFiberPtr ORVFiberPool::takeIdle() {
  const ORVFiberPtr fiber = std::exchange(idle_.front(), nullptr);
  away_.splice(away_.end(), idle_, idle_.begin());
  --idleCount_;
  return fiber;
}

ORVFiberPtr ORVFiberPool::makeFiber() {
  if (ORVFiber::aliveCount() >= maximum_) return nullptr;
  std::list<ORVFiberPtr> place;
  try {
    place.emplace_back();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  ORVFiberPtr fiber(new (std::nothrow) ORVFiber);
  if (!fiber || !fiber->start(ORVFiber::kStackCommit, ORVFiber::kStackReserve, mainLoop, this))
    return nullptr;
  away_.splice(away_.end(), place);
  return fiber;
}

// Runs on the fiber. Whoever acquires it again, as soon as it is back in the pool, finds its lock held until
// it has suspended itself. Once it is back, the pool may be gone with the next instruction.
void ORVFiberPool::mainLoop(void* raw) {
  auto& pool = *static_cast<ORVFiberPool*>(raw);
  ORVFiber& me = *ORVFiber::current();
  for (bool stopping = false; !stopping;) {
    me.suspend();
    if (me.runAssignment()) stopping = pool.takeBack(me);
  }
  me.requestStop();
  for (;;) me.suspend();
}

void ORVFiberPool::recycle(const ORVFiberPtr& fiber) {
  takeBack(*fiber);
}

// Returns whether the pool hands out no more.
bool ORVFiberPool::takeBack(ORVFiber& fiber) {
  fiber.reset();
  const KTMutexGuard guard(lock_);
  KT_ASSERT(!away_.empty());
  if (away_.empty()) return stopping_;
  away_.front() = &fiber;
  idle_.splice(idle_.end(), away_, away_.begin());
  ++idleCount_;
  KT_ASSERT(activeCount_ > 0);
  if (activeCount_ > 0 && --activeCount_ == 0) cameHome_.signal();
  return stopping_;
}

bool ORVFiberPool::stop() {
  const KTMutexGuard guard(lock_);
  if (stopping_.exchange(true)) return true;
  for (u32 steps = 0; activeCount_ >= 1 && steps < kStopSteps;) {
    if (cameHome_.wait(lock_, kStopStepMilliseconds) == kWaitTimedOut) ++steps;
  }
  return false;
}

void ORVFiberPool::trim() {
  std::list<ORVFiberPtr> surplus;  // Destroyed behind the lock.
  const KTMutexGuard guard(lock_);
  const u32 idle = idleCount_, active = activeCount_;
  if (idle < kTrimFrom || idle <= active || idle <= kIdlePerActive * active) return;
  const u32 count = idle - kIdlePerActive * active;
  surplus.splice(surplus.begin(), idle_, idle_.begin(), std::next(idle_.begin(), count));
  idleCount_ -= count;
  for (const ORVFiberPtr& fiber : surplus) fiber->requestStop();
}
