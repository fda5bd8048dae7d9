// One pointer for each thread, behind an index that the system assigns at run time.

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

  // Returns null on a thread that has set nothing.
  void* get() const {
    const u32 taken = index_.load(std::memory_order_acquire);
    return taken == kNone ? nullptr : pthread_getspecific(taken);
  }

  // Returns false when the system has no index or no memory left.
  bool set(void* value);
  // Frees the index, and with it the values of all threads. The next `set` takes a new one.
  void giveBack();

 private:
  static constexpr u32 kNone = 0xFFFFFFFF;

  u32 index();

  std::atomic<u32> index_{kNone};
};

}  // namespace orv::platform
