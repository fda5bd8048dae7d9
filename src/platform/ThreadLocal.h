// One pointer for each thread, behind an index that the system gives out at run time.

#pragma once

#include <pthread.h>

#include <atomic>

#include "platform/Types.h"

namespace orv::platform {

// The index is taken at the first `set`. Nothing runs and nothing is freed when a thread ends: no code of a
// module that has been unloaded can be called for it.
class ThreadLocal {
 public:
  constexpr ThreadLocal() = default;
  ThreadLocal(const ThreadLocal&) = delete;
  ThreadLocal& operator=(const ThreadLocal&) = delete;

  // Null on a thread that has set nothing.
  void* get() const {
    const u32 taken = index_.load(std::memory_order_acquire);
    return taken == kNone ? nullptr : pthread_getspecific(taken);
  }

  bool set(void* value);  // False when the system has no index or no memory left.
  void giveBack();  // The index; what the threads have set is forgotten. The next `set` takes a new one.

 private:
  static constexpr u32 kNone = 0xFFFFFFFF;

  u32 index();

  std::atomic<u32> index_{kNone};
};

}  // namespace orv::platform
