// A counted object with hooks for the start of its first activity and the end of its last one.

#pragma once

#include "util/IMutex.h"
#include "util/KTObject.h"

class ActiveObject : public KTObject {
 public:
  explicit ActiveObject(IMutex* lock);  // Borrowed; never null.

  virtual void onActive() = 0;    // Called with the lock held.
  virtual void onInactive() = 0;  // The same.

  void activate();
  void deactivate();
  bool isActive();

 private:
  u32 activeCount_ = 0;  // Under the lock.
  IMutex* const lock_;
};
