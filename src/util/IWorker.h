// Workers: whatever can wait for a KTFiberMutex.

#pragma once

#include <atomic>

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
  IWorker() { waitLink.worker = this; }

  virtual int workerType() = 0;
  // Stops the calling worker, which must be this one, until it is resumed. A resume that came first counts.
  // True.
  virtual bool suspend() = 0;
  // Called by another worker. True when this one is on its way.
  virtual bool resume() = 0;
  virtual bool wake() = 0;  // The step of `resume` that restarts the worker.
  virtual void setState(int state) = 0;
  virtual void setWaitingMutex(KTFiberMutex* mutex) = 0;  // Null: waits for none.

  WaitLink waitLink;
};

// Stands for a plain thread, which sleeps while it waits.
class ORVThreadMutexDelegate : public IWorker {
 public:
  ORVThreadMutexDelegate() { lock_.lock(); }
  ~ORVThreadMutexDelegate() override { lock_.unlock(); }

  int workerType() override { return kWorkerDelegate; }
  bool suspend() override;
  bool resume() override;
  bool wake() override { return resume(); }
  void setState(int) override {}
  void setWaitingMutex(KTFiberMutex* mutex) override {
    waitingMutex_.store(mutex, std::memory_order_relaxed);
  }

 private:
  KTConditionSignal signal_;
  // Held by the thread whenever it isn't in `suspend`: nobody can resume it between its look at `resumed_`
  // and its sleep.
  KTThreadOnlyMutex lock_{false};
  std::atomic<KTFiberMutex*> waitingMutex_{nullptr};  // Told, never asked.
  bool resumed_ = false;                              // Under lock_.
};

// The fiber that runs on the calling thread, else the thread's own worker; a thread that has none gets a
// delegate. Throws std::bad_alloc when there is no memory for it.
IWorker* callingWorker();
