#include "util/ORVFiberPool.h"

#include <new>

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
  ORVFiberPtr fiber = idle_.front();
  idle_.pop_front();
  --idleCount_;
  return fiber;
}

ORVFiberPtr ORVFiberPool::makeFiber() {
  if (ORVFiber::aliveCount() >= maximum_) return nullptr;
  ORVFiberPtr fiber(new (std::nothrow) ORVFiber);
  const bool started = fiber && fiber->start(ORVFiber::kStackCommit, ORVFiber::kStackReserve, mainLoop, this);
  return started ? fiber : ORVFiberPtr();
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

// Gives whether the pool hands out no more.
bool ORVFiberPool::takeBack(ORVFiber& fiber) {
  fiber.reset();
  const KTMutexGuard guard(lock_);
  idle_.emplace_back(&fiber);
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
