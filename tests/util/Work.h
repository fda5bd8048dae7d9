// What the threads and the fibers of these tests do.

#pragma once

#include <atomic>
#include <functional>

#include "support/Threads.h"
#include "util/KTFiberMutex.h"
#include "util/KTThreads.h"
#include "util/ORVFiber.h"
#include "util/ThreadSlots.h"

using Work = std::function<void()>;

inline u32 doWork(void* work) {
  (*static_cast<Work*>(work))();
  return 0;
}

// Until no more than `count` threads of the library run.
inline void awaitThreads(u32 count = 0) {
  orv::test::await([count] { return runningThreadCount() <= count; });
}

// A thread that leaves no slots behind.
template <class Body>
std::jthread cleanThread(Body body) {
  return std::jthread([body] {
    body();
    ORVFiber::fiberToThread();
    slotsTearDown();
  });
}

template <class Body>
void onCleanThread(Body body) {
  cleanThread(body).join();
}

// A mutex, and work that locks it.
struct Locking {
  KTFiberMutex mutex;
  std::atomic<bool> done{false};
  Work work = [this] {
    const KTMutexGuard guard(mutex);
    done = true;
  };

  void awaitWaiters(u32 count) {
    orv::test::await([this, count] { return mutex.waitersForTest() == count; });
  }
  // Until the work has been done on a thread of the library,
  void awaitEnd() {
    orv::test::await([this] { return done.load(); });
    awaitThreads();
  }
  // and only the caller holds the fiber.
  void awaitEnd(ORVFiber& fiber) {
    awaitEnd();
    orv::test::await([&] { return fiber.getRefCount() == 1; });
  }
};
