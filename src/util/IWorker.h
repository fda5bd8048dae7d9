// Workers: everything that can wait for a KTFiberMutex.

#pragma once

#include <atomic>

#include "platform/Fork.h"
#include "util/KTConditionSignal.h"
#include "util/KTObject.h"
#include "util/KTThreadOnlyMutex.h"

class IWorker;
class KTFiberMutex;

inline constexpr int kWorkerThread = 0;
inline constexpr int kWorkerFiber = 1;
inline constexpr int kWorkerDelegate = 2;

// A worker's place in a mutex's queue. It lives inside the worker: queueing allocates nothing, and a worker
// waits for one mutex at a time. Guarded by that mutex.
struct WaitLink {
  IWorker* worker = nullptr;
  WaitLink* next = nullptr;
  WaitLink* previous = nullptr;
};

// The order of the operations is part of the binary contract.
class IWorker : public KTObject {
 public:
  // `home` is the one thread that the worker ever runs on; 0 for a worker that changes threads.
  explicit IWorker(orv::platform::ThreadToken home = 0) : home_(home) { waitLink.worker = this; }

  virtual int workerType() = 0;
  // Stops the calling worker, which must be this one, until it is resumed; an earlier resume counts. Returns
  // true.
  virtual bool suspend() = 0;
  // Called by another worker. Returns true when this one is on its way.
  virtual bool resume() = 0;
  virtual bool wake() = 0;  // The step of `resume` that restarts the worker.
  virtual void setState(int state) = 0;
  virtual void setWaitingMutex(KTFiberMutex* mutex) = 0;  // Null for none.

  WaitLink waitLink;

  // For mutexes. The first is called by the worker when it has taken one, the second by `thread` when that
  // unlocks it.
  void noteTaken() { taken_.store(taken_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
  void noteGiven(orv::platform::ThreadToken thread) {
    if (thread == home_) {
      taken_.store(taken_.load(std::memory_order_relaxed) - 1, std::memory_order_release);
    } else {
      takenAway_.fetch_add(1, std::memory_order_release);
    }
  }
  // For a worker whose thread has ended: returns true when it owns no mutex. The caller then sees all that
  // was done to the worker.
  bool ownsNothing() const {
    return taken_.load(std::memory_order_acquire) == takenAway_.load(std::memory_order_acquire);
  }

 private:
  const orv::platform::ThreadToken home_;
  std::atomic<u32> taken_{0};      // Mutexes that the worker has locked less those that it has unlocked.
  std::atomic<u32> takenAway_{0};  // Those that others have unlocked.
};

// Stands for a plain thread, which sleeps while it waits.
class ORVThreadMutexDelegate : public IWorker {
 public:
  ORVThreadMutexDelegate();
  ~ORVThreadMutexDelegate() override { lock_.unlock(); }

  int workerType() override { return kWorkerDelegate; }
  bool suspend() override;
  bool resume() override;  // Also false in a forked child, for a thread of the parent.
  bool wake() override { return resume(); }
  void setState(int) override {}
  void setWaitingMutex(KTFiberMutex* mutex) override {
    waitingMutex_.store(mutex, std::memory_order_relaxed);
  }
  // Enters the section of the mutex that the thread has waited for. Whoever hands it over holds the section
  // and asks for `lock_`: the thread lets go of that one until it has the other.
  void enterAfterWait(orv::platform::CriticalSection& section);

 private:
  static void surviveFork();

  KTConditionSignal signal_;
  // Held by the thread whenever it isn't in `suspend`: nobody can resume it between its look at `resumed_`
  // and its sleep. Another thread frees it when this one has ended.
  KTThreadOnlyMutex lock_{false, KTThreadOnlyMutex::Handling::kChangesHands};
  std::atomic<KTFiberMutex*> waitingMutex_{nullptr};  // For a debugger: no code reads it.
  bool resumed_ = false;                              // Under lock_.
  // The forks that lie behind the process of the thread.
  std::atomic<u32> forks_{orv::platform::forksBehindUs()};
};

// The cleanup of a thread's slot that holds a count of its worker.
void releaseWorker(void* worker);

// Returns the fiber that runs on the calling thread, else the thread's own worker; makes a delegate for a
// thread that has none. Throws std::bad_alloc if there is no memory for it.
IWorker* callingWorker();
