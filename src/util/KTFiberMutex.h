// The recursive mutex that hands itself over, first come, first served, and that lets a fiber wait without
// blocking its thread.

#pragma once

#include <boost/noncopyable.hpp>

#include "platform/Fork.h"
#include "util/IMutex.h"
#include "util/IWorker.h"

// Owned by a worker, not by a thread: a fiber that locked it may continue and unlock it on another thread.
// With somebody waiting, `unlock` makes the first in line the owner; nobody can slip in between. `unlock`
// doesn't check who calls it, but it must not be called with no owner, nor the mutex be destroyed while
// owned.
class KTFiberMutex : public IMutex, private boost::noncopyable {
 public:
  KTFiberMutex();

  // Always returns true. Throws std::bad_alloc, with nothing locked, if a thread's first lock finds no memory
  // for the thread's delegate.
  bool lock() override;
  bool unlock() override;
  orv::platform::CriticalSection* nativeHandle() override { return &section_; }
  u32 setSpinCount(u32 count) override { return section_.setSpinCount(count); }
  virtual ~KTFiberMutex();

  // Returns the number of workers in line.
  u32 waitersForTest();

 private:
  void waitInLine(IWorker& me);
  void suspend(IWorker& me);
  void enterAfterWait(IWorker& me);
  void append(WaitLink& link);
  void remove(WaitLink& link);
  IWorker* resumeFirst();

  // Guards what follows. Held for moments, never while a worker waits.
  orv::platform::CriticalSection section_;
  const orv::platform::HeldOverForks held_{section_};
  IWorker* owner_ = nullptr;
  IWorker* lastOwner_ = nullptr;  // The last to unlock it; may be gone.
  WaitLink head_, tail_;          // The ends of the line.
  u32 recursion_ = 0;             // The owner's locks beyond the first.
};
