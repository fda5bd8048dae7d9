// Fibers that are handed out and taken back, with their stacks.

#pragma once

#include <atomic>
#include <boost/noncopyable.hpp>
#include <list>

#include "platform/Fork.h"
#include "util/ORVFiber.h"

// A fiber that it hands out waits in its main loop for `run`; when the function has ended, the fiber goes
// back by itself. One that isn't run goes back by `recycle`. The pool must outlive its active fibers: `stop`
// waits for them.
class ORVFiberPool : private boost::noncopyable {
 public:
  // No fiber is made while `maximum` of them are alive in the process, in the pool or elsewhere.
  explicit ORVFiberPool(u32 maximum) : maximum_(maximum) {}

  // Returns null at the limit, when there is no memory, and once the pool is stopping.
  ORVFiberPtr acquire();

  // Takes back a fiber that has no work.
  void recycle(const ORVFiberPtr& fiber);

  // Hands out no more fibers, and waits up to ten seconds for the active ones. Returns false; true at once
  // when called before.
  bool stop();

  // Drops idle fibers down to four for each active one, if there are more of them and more than ten.
  void trim();

  u32 idleCount() const { return idleCount_.load(std::memory_order_relaxed); }
  u32 activeCount() const { return activeCount_.load(std::memory_order_relaxed); }

 private:
  ORVFiberPtr takeIdle();
  ORVFiberPtr makeFiber();
  bool takeBack(ORVFiber& fiber);
  static void mainLoop(void* pool);

  std::atomic<bool> stopping_{false};
  KTThreadOnlyMutex lock_{false};
  const orv::platform::HeldOverForks held_{*lock_.nativeHandle()};
  std::list<ORVFiberPtr> idle_;  // Under lock_.
  std::list<ORVFiberPtr> away_;  // The same: for each active fiber the node, empty, in which it comes home.
  std::atomic<u32> idleCount_{0};
  std::atomic<u32> activeCount_{0};
  const u32 maximum_;
  KTConditionSignal cameHome_;
};

// The process's pool; null, the start, means none. Whoever sets it keeps it alive.
extern std::atomic<ORVFiberPool*> fiberPool;

// Returns a fiber of the pool, by default the process's; null when that has none. Without a pool returns a
// new fiber that isn't started.
ORVFiberPtr acquireFiber(ORVFiberPool* pool = fiberPool.load(std::memory_order_acquire));
