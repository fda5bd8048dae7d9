// What the threads and the fibers of these tests do.

#pragma once

#include <functional>

#include "support/Threads.h"
#include "util/KTThreads.h"

using Work = std::function<void()>;

inline u32 doWork(void* work) {
  (*static_cast<Work*>(work))();
  return 0;
}

// Until no more than `count` threads of the library run.
inline void awaitThreads(u32 count = 0) {
  orv::test::await([count] { return runningThreadCount() <= count; });
}
