// The interface of every lock of this library, and the guard that holds one for a scope.

#pragma once

#include "platform/CriticalSection.h"
#include "platform/Types.h"

// The order of the operations is part of the binary contract.
class IMutex {
 public:
  virtual bool lock() = 0;    // Always true.
  virtual bool unlock() = 0;  // Always true.
  virtual orv::platform::CriticalSection* nativeHandle() = 0;
  // Sets how often a taken lock is tried again before the thread sleeps. Returns the earlier count.
  virtual u32 setSpinCount(u32 count) = 0;

 protected:
  ~IMutex() = default;
};

// Holds `mutex` from construction to destruction, by whatever road the scope is left.
class KTMutexGuard {
 public:
  explicit KTMutexGuard(IMutex& mutex) : mutex_(mutex) { mutex_.lock(); }
  ~KTMutexGuard() { mutex_.unlock(); }
  KTMutexGuard(const KTMutexGuard&) = delete;
  KTMutexGuard& operator=(const KTMutexGuard&) = delete;

 private:
  IMutex& mutex_;
};
