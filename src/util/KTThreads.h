// Threads that the library starts itself, the registry of them, and doing something once.

#pragma once

#include <atomic>
#include <boost/noncopyable.hpp>
#include <boost/thread/once.hpp>

#include "util/IWorker.h"

namespace orv::util::hidden {

// What is to be done once.
class IOnce : private boost::noncopyable {
 public:
  virtual ~IOnce() = default;
  virtual void run() = 0;
};

}  // namespace orv::util::hidden

// Runs the action once for `flag`, which lives in static storage. Waits while another thread runs it. Passes
// on an exception of the action; the next call then runs it again.
void runOnce(boost::once_flag& flag, orv::util::hidden::IOnce& action);

// The worker of a thread of the library; made on that thread.
class KTThread : public ORVThreadMutexDelegate {
 public:
  KTThread();

  int workerType() override { return kWorkerThread; }

  const u32 threadId;
  const u32 processId;
  std::atomic<u32> userValue1{0};  // Whatever setUserValues has stored.
  std::atomic<u32> userValue2{0};
};

class KTThreadPtr : public KTPtr<KTThread> {
 public:
  using KTPtr<KTThread>::KTPtr;
};

// Makes `thread` the calling thread's worker; the thread's slots hold no count of it. Returns true.
bool ktInitThread(const KTThreadPtr& thread);

// What a thread or a fiber runs. An exception that leaves it ends the process by std::terminate, with its
// stack not yet unwound, as one that leaves the function of a std::thread does.
using KTThreadFunction = u32 (*)(void* argument);

inline constexpr u32 kThreadWithFiber = 1;  // An option: run the function on a fiber.

// Starts a detached thread. Returns its id; 0 when the system can't start one. The library finds the thread
// again by its id, and by `argument` as its owner. The thread ends with the function or, on a fiber, when the
// function first waits: the function then continues on another thread, and its result is lost. A thread that
// finds no memory for its own entry ends the process.
u32 startThread(KTThreadFunction function, void* argument, u32 options);

// Does the same without waiting until the new thread runs. Returns false when there is none.
bool launchThread(KTThreadFunction function, void* argument, u32 options);

// Returns the number of threads that are registered now.
u32 runningThreadCount();

// Stores the pair in the library's thread of that id, if there is one.
void setUserValues(u32 threadId, u32 value1, u32 value2);

// Switches the effect of kThreadWithFiber on, as at the start, or off.
void setThreadFibers(bool on);
