#include "util/KTThreads.h"

#include <map>
#include <memory>
#include <new>

#include "platform/Fork.h"
#include "platform/Thread.h"
#include "util/ORVFiber.h"
#include "util/ORVFiberPool.h"
#include "util/ThreadSlots.h"

namespace {

struct ByAddress {
  bool operator()(const KTThreadPtr& left, const KTThreadPtr& right) const {
    return std::less<>()(left.get(), right.get());
  }
};

// The library's threads. An owner is known by the argument of its threads.
struct Registry {
  KTThreadOnlyMutex lock{true};
  const orv::platform::HeldOverForks held{*lock.nativeHandle(), orv::platform::HeldOverForks::kProcess};
  std::map<KTThreadPtr, void*, ByAddress> threadsByPtr;        // Under the lock.
  std::map<void*, std::map<u32, KTThreadPtr>> threadsByOwner;  // Under the lock.
};

// In static storage, and never destroyed: threads of the library may outlive the end of main.
constinit std::atomic<Registry*> sharedRegistry{nullptr};

Registry& registry() {
  return *sharedRegistry.load(std::memory_order_acquire);
}

constinit std::atomic<u32> runningThreads{0};
constinit std::atomic<bool> fibersOn{true};

// Boost orders an action before every return for its flag, but does so where the thread sanitizer can't look;
// this shows it.
constinit std::atomic<u32> actionsRun{0};

// The block of a new thread.
struct ThreadCall {
  KTThreadFunction function;
  void* argument;
  u32 options;
  u32 result = 0;
};

void enroll(const KTThreadPtr& thread, void* owner) {
  const KTMutexGuard guard(registry().lock);
  registry().threadsByPtr[thread] = owner;
  registry().threadsByOwner[owner][thread->threadId] = thread;
}

// In the child of a fork: no thread runs there but the one that forked. The workers of the others are not
// freed, for they may stand in line for a mutex.
void keepOwnThread() {
  auto& all = registry().threadsByPtr;
  KTThreadPtr mine;
  void* owner = nullptr;
  for (const auto& [thread, itsOwner] : all) {
    if (static_cast<IWorker*>(thread.get()) == slotGet(kSlotWorker)) {
      mine = thread;
      owner = itsOwner;
    } else {
      thread->addRef();  // For good.
    }
  }
  all.clear();
  registry().threadsByOwner.clear();
  runningThreads = 0;
  if (!mine) return;
  ++runningThreads;
  enroll(mine, owner);
}

void strikeOff(const KTThreadPtr& thread, void* owner) {
  const KTMutexGuard guard(registry().lock);
  registry().threadsByPtr.erase(thread);
  const auto group = registry().threadsByOwner.find(owner);
  group->second.erase(thread->threadId);
  if (group->second.empty()) registry().threadsByOwner.erase(group);
}

// Under the registry's lock; null when no thread of the library has the id.
KTThread* findThread(u32 threadId) {
  for (const auto& group : registry().threadsByOwner) {
    const auto found = group.second.find(threadId);
    if (found != group.second.end()) return found->second.get();
  }
  return nullptr;
}

// Returns false when there is no fiber to run it on.
bool callOnFiber(const ThreadCall& call) {
  if (!(call.options & kThreadWithFiber) || !fibersOn.load(std::memory_order_relaxed)) return false;
  ORVFiberPool* const pool = fiberPool.load(std::memory_order_acquire);
  const ORVFiberPtr fiber = acquireFiber(pool);
  if (!fiber) return false;
  if (fiber->run(call.function, call.argument)) return true;
  if (pool) pool->recycle(fiber);
  return false;
}

// A mutex that the thread has left locked, for another to unlock, knows the thread by its worker.
void leaveWorkerInSlot(const KTThreadPtr& thread) {
  thread->addRef();
  slotSet(kSlotWorker, static_cast<IWorker*>(thread.get()), releaseWorker);
}

void callRegistered(ThreadCall& call) {
  const KTThreadPtr thread(new KTThread);
  ktInitThread(thread);
  enroll(thread, call.argument);
  runningThreads.fetch_add(1, std::memory_order_relaxed);
  if (!callOnFiber(call)) call.result = call.function(call.argument);
  runningThreads.fetch_sub(1, std::memory_order_release);
  strikeOff(thread, call.argument);
  ORVFiber::fiberToThread();
  if (!thread->ownsNothing()) leaveWorkerInSlot(thread);
  slotsTearDown();
}

u32 threadEntry(void* block) noexcept {
  const std::unique_ptr<ThreadCall> call(static_cast<ThreadCall*>(block));
  callRegistered(*call);
  return call->result;
}

// Returns 0 when there is no memory or no thread.
template <class Start>
auto startWith(Start start, const ThreadCall& call) -> decltype(start(threadEntry, nullptr)) {
  auto block = std::unique_ptr<ThreadCall>(new (std::nothrow) ThreadCall(call));
  if (!block) return {};
  const auto started = start(threadEntry, block.get());
  if (started) static_cast<void>(block.release());  // The thread's now.
  return started;
}

}  // namespace

void runOnce(boost::once_flag& flag, orv::util::hidden::IOnce& action) {
  boost::call_once(flag, [&action] {
    action.run();
    actionsRun.fetch_add(1, std::memory_order_release);
  });
  static_cast<void>(actionsRun.load(std::memory_order_acquire));
}

KTThread::KTThread()
    : threadId(orv::platform::currentThreadId()), processId(orv::platform::currentProcessId()) {}

bool ktInitThread(const KTThreadPtr& thread) {
  class LocalOnce : public orv::util::hidden::IOnce {
   public:
    void run() override {
      alignas(Registry) static unsigned char storage[sizeof(Registry)];
      sharedRegistry.store(new (storage) Registry, std::memory_order_release);
      orv::platform::onForkedChild(keepOwnThread);
    }
  };
  static boost::once_flag once = BOOST_ONCE_INIT;
  LocalOnce makeRegistry;
  runOnce(once, makeRegistry);
  const KTMutexGuard guard(registry().lock);
  slotSet(kSlotWorker, static_cast<IWorker*>(thread.get()), nullptr);
  return true;
}

u32 startThread(KTThreadFunction function, void* argument, u32 options) {
  return startWith(orv::platform::startThread, {function, argument, options});
}

bool launchThread(KTThreadFunction function, void* argument, u32 options) {
  return startWith(orv::platform::launchThread, {function, argument, options});
}

u32 runningThreadCount() {
  return runningThreads.load(std::memory_order_acquire);
}

void setUserValues(u32 threadId, u32 value1, u32 value2) {
  if (!sharedRegistry.load(std::memory_order_acquire)) return;  // Not one thread yet.
  const KTMutexGuard guard(registry().lock);
  KTThread* const thread = findThread(threadId);
  if (!thread) return;
  thread->userValue1 = value1;
  thread->userValue2 = value2;
}

void setThreadFibers(bool on) {
  fibersOn.store(on, std::memory_order_relaxed);
}
