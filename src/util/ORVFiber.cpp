#include "util/ORVFiber.h"

#include <utility>

#include "platform/FiberSwitch.h"
#include "platform/Thread.h"
#include "util/KTThrowable.h"
#include "util/ThreadSlots.h"

namespace platform = orv::platform;

namespace {

constinit std::atomic<u32> fibersAlive{0};

void releaseFiber(void* fiber) {
  static_cast<ORVFiber*>(fiber)->release();
}

void revertThread(void*) {
  platform::convertFiberToThread();
}

// The slot holds a count; null clears it.
void setCurrentFiber(ORVFiber* fiber) {
  if (fiber) fiber->addRef();
  slotSet(kSlotFiber, fiber, fiber ? releaseFiber : nullptr);
}

u32 wakeOnNewThread(void* raw) {
  auto* const fiber = static_cast<ORVFiber*>(raw);
  fiber->wake();
  fiber->release();
  return 0;
}

// The main of a fiber that was started for a single assignment.
void runOneAssignment(void* fiber) {
  static_cast<ORVFiber*>(fiber)->runAssignment();
}

}  // namespace

ORVFiber::ORVFiber() {
  fibersAlive.fetch_add(1, std::memory_order_relaxed);
}

ORVFiber::~ORVFiber() {
  fibersAlive.fetch_sub(1, std::memory_order_relaxed);
  platform::deleteFiber(fiberHandle_);
}

u32 ORVFiber::aliveCount() {
  return fibersAlive.load(std::memory_order_relaxed);
}

ORVFiber* ORVFiber::current() {
  return static_cast<ORVFiber*>(slotGet(kSlotFiber));
}

bool ORVFiber::ensureThreadIsFiber() {
  if (slotGet(kSlotMainFiber)) return true;
  platform::Fiber* const own = platform::convertThreadToFiber();
  if (!own) return false;
  slotSet(kSlotMainFiber, own, revertThread);
  if (slotGet(kSlotMainFiber) == own) return true;
  platform::convertFiberToThread();
  return false;
}

void ORVFiber::fiberToThread() {
  void* const own = slotGet(kSlotMainFiber);
  if (!own || own != platform::currentFiber()) return;  // Not converted, or on a fiber's stack.
  slotSet(kSlotMainFiber, nullptr, nullptr);
}

bool ORVFiber::start(u32, u32 reserve, Entry entry, void* argument) {
  const ORVFiberPtr alive(this);
  const KTMutexGuard guard(lock_);
  return startLocked(reserve, entry, argument);
}

bool ORVFiber::startLocked(std::size_t reserve, Entry entry, void* argument) {
  if (fiberHandle_) return false;
  fiberHandle_ = platform::createFiber(reserve, body, this);
  entry_ = entry;
  entryArgument_ = argument;
  if (fiberHandle_ && enter()) return true;
  platform::deleteFiber(std::exchange(fiberHandle_, nullptr));
  return false;
}

// The fiber can't free the stack that it stands on: whoever switched it in does.
void ORVFiber::body(void* raw) {
  auto* const me = static_cast<ORVFiber*>(raw);
  me->entry_(me->entryArgument_);
  me->ended_ = true;
  platform::leaveFiberFor(me->callerFiber_);
}

// The last count may go with the thread's slot: `alive` keeps the lock until it has been left.
bool ORVFiber::run(KTThreadFunction function, void* argument) {
  const ORVFiberPtr alive(this);
  const KTMutexGuard guard(lock_);
  if (busy_) return false;
  userFunction_ = function;
  userArgument_ = argument;
  if (fiberHandle_ ? switchIn() : startLocked(kStackReserve, runOneAssignment, this)) return true;
  userFunction_ = nullptr;
  return false;
}

bool ORVFiber::runAssignment() {
  const auto function = std::exchange(userFunction_, nullptr);
  if (!function) return false;
  busy_ = true;
  function(std::exchange(userArgument_, nullptr));
  busy_ = false;
  return true;
}

bool ORVFiber::wake() {
  const ORVFiberPtr alive(this);
  bool heldForWait = false;  // The fiber took a count when it queued; going on, it needs it no more.
  bool switched = false;
  {
    const KTMutexGuard guard(lock_);
    heldForWait = state_ == kWaiting;
    switched = switchIn();
  }
  if (switched && heldForWait) release();
  return switched;
}

bool ORVFiber::switchIn() {
  if (threadBound_) return wakeBound(), true;
  if (!fiberHandle_) return false;
  resumeCount_.fetch_add(1, std::memory_order_relaxed);
  return enter();
}

bool ORVFiber::enter() {
  if (switchedIn_ || !ensureThreadIsFiber()) return false;
  switchedIn_ = true;
  const ORVFiberPtr outer(current());  // When it is a fiber that makes the call.
  setCurrentFiber(this);
  callerFiber_ = platform::currentFiber();
  runningThread_ = platform::currentThreadId();
  state_ = kRunning;
  const bool entered = current() == this && platform::switchToFiber(fiberHandle_);
  setCurrentFiber(outer.get());
  switchedIn_ = false;
  lastThread_.store(runningThread_.exchange(0));
  if (std::exchange(ended_, false)) platform::deleteFiber(std::exchange(fiberHandle_, nullptr));
  return entered;
}

bool ORVFiber::suspend() {
  if (platform::currentFiber() != fiberHandle_) return false;
  KT_ASSERT(KTThreadOnlyMutex::trackedDepth() == 0);
  suspendCount_.fetch_add(1, std::memory_order_relaxed);
  return threadBound_ ? waitBound() : platform::switchToFiber(callerFiber_);
}

bool ORVFiber::resume() {
  if (threadBound_) return wake();
  addRef();  // The new thread's.
  if (launchThread(wakeOnNewThread, this, 0)) return true;
  release();
  return false;
}

void ORVFiber::wakeBound() {
  wakeFlag_ = true;
  wakeSignal_.signal();
}

bool ORVFiber::waitBound() {
  const bool heldForWait = state_ == kWaiting;
  state_ = kWaitingBound;
  while (!wakeFlag_) wakeSignal_.wait(lock_);
  wakeFlag_ = false;
  state_ = kRunning;
  if (heldForWait) release();  // As in `wake`; the thread's slot has a count of its own.
  return true;
}

void ORVFiber::enterAfterWait(platform::CriticalSection& section) {
  if (!threadBound_) return section.enter();
  lock_.unlock();
  section.enter();
  lock_.lock();
  wakeFlag_ = false;
}

void ORVFiber::setState(int state) {
  state_ = state;
}

void ORVFiber::setWaitingMutex(KTFiberMutex* mutex) {
  waitingMutex_ = mutex;
}

void ORVFiber::reset() {
  const KTMutexGuard guard(lock_);
  generation_.fetch_add(1, std::memory_order_relaxed);
  runningThread_ = 0;
  lastThread_ = 0;
  state_ = kFresh;
  waitingMutex_ = nullptr;
  stopRequested_ = false;
  threadBound_ = false;
}
