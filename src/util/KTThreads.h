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

// Runs the action unless it has been run for `flag`, which lives in static storage. Who comes while another
// thread runs it waits. An exception of the action reaches its caller, and the next one runs it again.
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

// Makes `thread` the calling thread's worker. The thread's slots hold no count on it. True.
bool ktInitThread(const KTThreadPtr& thread);

// What a thread or a fiber runs. An exception that leaves it ends the process by std::terminate, with its
// stack not yet unwound, as one that leaves the function of a std::thread does.
using KTThreadFunction = u32 (*)(void* argument);

inline constexpr u32 kThreadWithFiber = 1;  // An option: run the function on a fiber.

// Starts a thread that nobody waits for, and gives its id; 0 when there is none to be had. The library finds
// the thread again by its id, and by `argument` as its owner. The thread ends with the function; on a fiber,
// also when the function first waits: it goes on on another thread then, and its result is lost. A thread
// that finds no memory for its own entry ends the process.
u32 startThread(KTThreadFunction function, void* argument, u32 options);

// Threads that are between their registration and its end.
u32 runningThreadCount();

// Stores the pair in the library's thread of that id; nothing when there is none.
void setUserValues(u32 threadId, u32 value1, u32 value2);

// Whether kThreadWithFiber has an effect; on at the start.
void setThreadFibers(bool on);
