// A fiber that can wait for a KTFiberMutex and leave its thread free meanwhile.

#pragma once

#include <atomic>

#include "platform/Fiber.h"
#include "util/IWorker.h"
#include "util/KTThreads.h"

class ORVFiber;

class ORVFiberPtr : public KTPtr<ORVFiber> {
 public:
  using KTPtr<ORVFiber>::KTPtr;
};

// Runs on the thread that started it or switched it in until it ends or suspends itself; then that thread
// returns from its call. After a wait it may run on another thread: nothing in it may rely on the thread's
// identity across a wait.
//
// Counts: the thread that switches it in holds one meanwhile, a fiber that waits for a mutex holds one of
// itself, and one that suspends itself otherwise must be held by whoever will resume it. Destroying a
// suspended fiber frees its stack without unwinding it.
class ORVFiber : public IWorker {
 public:
  using Entry = void (*)(void* argument);

  static constexpr u32 kStackCommit = 4096;  // The system commits pages one by one, as they are touched.
  static constexpr u32 kStackReserve = 262144;

  enum State { kFresh = 0, kRunning = 1, kWaiting = 3, kWaitingBound = 4 };

  ORVFiber();
  ~ORVFiber() override;

  int workerType() override { return kWorkerFiber; }

  // Switches from this fiber, the calling one, back to the thread that switched it in. Returns true when it
  // has been switched in again; false at once when called from anywhere else. The caller holds no tracked
  // mutex.
  bool suspend() override;

  // Starts a thread that wakes the fiber as soon as it has suspended itself; doesn't wait for that. Returns
  // false when there is no thread.
  bool resume() override;

  // Switches a suspended fiber in on the calling thread, and returns when it suspends itself again or ends.
  // Waits while it runs elsewhere. Returns false when there is nothing to switch in.
  bool wake() override;

  void setState(int state) override;
  void setWaitingMutex(KTFiberMutex* mutex) override;

  // Enters the section of the mutex that the fiber has waited for: as a delegate does, on a thread of its
  // own.
  void enterAfterWait(orv::platform::CriticalSection& section);

  // Makes the platform's fiber and runs `entry` on it; returns when `wake` would. Returns false for a fiber
  // that has been started, and when there is no memory.
  bool start(u32 commit, u32 reserve, Entry entry, void* argument);

  // Assigns the fiber its work and switches it in. A fiber that was never started, or has ended, starts, runs
  // the function and ends. Returns false while its earlier work isn't done, and when there is no memory.
  bool run(KTThreadFunction function, void* argument);

  // Makes the fiber fresh for its next assignment.
  void reset();

  // For a fiber's main loop: runs the work that `run` has assigned. Returns false when there is none.
  bool runAssignment();

  void requestStop() { stopRequested_.store(true, std::memory_order_relaxed); }
  bool stopRequested() const { return stopRequested_.load(std::memory_order_relaxed); }

  // Ties the fiber to the thread that runs it, until the next reset: it blocks that thread while it waits.
  // Nothing in the library does so.
  void bindToThread() { threadBound_.store(true, std::memory_order_relaxed); }

  // Return a value that may be out of date already.
  int state() const { return state_.load(std::memory_order_relaxed); }
  u32 generation() const { return generation_.load(std::memory_order_relaxed); }
  u32 runningThread() const { return runningThread_.load(std::memory_order_relaxed); }  // 0: on none.
  u32 lastThread() const { return lastThread_.load(std::memory_order_relaxed); }
  u32 suspendCount() const { return suspendCount_.load(std::memory_order_relaxed); }
  u32 resumeCount() const { return resumeCount_.load(std::memory_order_relaxed); }

  static u32 aliveCount();

  // Returns the fiber that runs on the calling thread; null if none does.
  static ORVFiber* current();
  static bool ensureThreadIsFiber();
  static void fiberToThread();

 private:
  bool startLocked(std::size_t reserve, Entry entry, void* argument);
  bool switchIn();
  bool enter();
  void wakeBound();
  bool waitBound();
  static void body(void* fiber);

  // Held by the thread that switches the fiber in until the switch back: another that wants to switch it in
  // waits until it has left its stack. Guards what isn't atomic below.
  KTThreadOnlyMutex lock_{false, KTThreadOnlyMutex::Handling::kChangesHands};
  KTConditionSignal wakeSignal_;
  bool wakeFlag_ = false;
  orv::platform::Fiber* callerFiber_ = nullptr;  // The target of `suspend`.
  orv::platform::Fiber* fiberHandle_ = nullptr;  // Null until started, and after the end.
  std::atomic<bool> stopRequested_{false};
  std::atomic<bool> threadBound_{false};
  std::atomic<u32> runningThread_{0};
  std::atomic<u32> lastThread_{0};
  std::atomic<KTFiberMutex*> waitingMutex_{nullptr};
  Entry entry_ = nullptr;
  void* entryArgument_ = nullptr;
  KTThreadFunction userFunction_ = nullptr;
  void* userArgument_ = nullptr;
  std::atomic<u32> generation_{0};
  std::atomic<int> state_{kFresh};
  std::atomic<u32> suspendCount_{0};
  std::atomic<u32> resumeCount_{0};
  bool switchedIn_ = false;
  bool busy_ = false;   // With an assignment.
  bool ended_ = false;  // `entry` has returned: the stack is to be freed.
};
