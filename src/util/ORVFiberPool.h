// Fibers that are handed out and taken back, with their stacks.

#pragma once

#include <atomic>
#include <boost/noncopyable.hpp>
#include <list>

#include "util/ORVFiber.h"

// A fiber that it hands out stands in its main loop and waits for `run`; when the function has ended, the
// fiber goes back by itself. One that isn't run goes back by `recycle`. The pool must outlive its active
// fibers: `stop` waits for them.
class ORVFiberPool : private boost::noncopyable {
 public:
  // No fiber is made while `maximum` of them are alive in the process, in the pool or elsewhere.
  explicit ORVFiberPool(u32 maximum) : maximum_(maximum) {}

  // Null when there is none to be had, and once the pool is stopping.
  ORVFiberPtr acquire();

  // Takes back a fiber that has no work.
  void recycle(const ORVFiberPtr& fiber);

  // Ends the handing out; active fibers may take ten seconds to come back. Gives whether it had been called
  // before, without waiting then.
  bool stop();

  // With many more idle fibers than active ones, and more than ten, keeps four for each active one.
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
  std::list<ORVFiberPtr> idle_;  // Under lock_.
  std::atomic<u32> idleCount_{0};
  std::atomic<u32> activeCount_{0};
  const u32 maximum_;
  KTConditionSignal cameHome_;
};

// The process's pool; null, the start, means none. Whoever sets it keeps it alive.
extern std::atomic<ORVFiberPool*> fiberPool;

// From the pool, by default the process's; null when that has none to give. Without a pool a new fiber, not
// started.
ORVFiberPtr acquireFiber(ORVFiberPool* pool = fiberPool.load(std::memory_order_acquire));
