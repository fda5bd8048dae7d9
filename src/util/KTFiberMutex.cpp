#include "util/KTFiberMutex.h"

#include "util/ORVFiber.h"
#include "util/ThreadSlots.h"

using orv::platform::SectionGuard;

namespace {

constexpr int kStateWaiting = 3;

// The ends of the line carry these in place of a worker.
constexpr std::uintptr_t kHeadMark = 0xCAAAAAAA;
constexpr std::uintptr_t kTailMark = 0xCEEEEEEE;

constinit std::atomic<u32> mutexesAlive{0};

// Delegates are used by mutexes alone: when the last mutex is gone, so is their use, and they can be freed
// with the module. A process that ends with mutexes alive may have threads inside them, and keeps everything.
struct Unload {
  ~Unload() {
    if (mutexesAlive.load(std::memory_order_acquire) == 0) slotsUnload();
  }
} unload;

}  // namespace

KTFiberMutex::KTFiberMutex() {
  head_.worker = reinterpret_cast<IWorker*>(kHeadMark);
  tail_.worker = reinterpret_cast<IWorker*>(kTailMark);
  head_.next = &tail_;
  tail_.previous = &head_;
  mutexesAlive.fetch_add(1, std::memory_order_relaxed);
}

KTFiberMutex::~KTFiberMutex() {
  mutexesAlive.fetch_sub(1, std::memory_order_release);
}

bool KTFiberMutex::lock() {
  const SectionGuard guard(section_);
  IWorker* const me = callingWorker();
  if (owner_ == me) {
    ++recursion_;
    return true;
  }
  if (owner_) {
    waitInLine(*me);
  } else {
    owner_ = me;
  }
  me->noteTaken();
  return true;
}

bool KTFiberMutex::unlock() {
  const SectionGuard guard(section_);
  if (recursion_ > 0) {
    --recursion_;
    return true;
  }
  lastOwner_ = owner_;
  if (owner_) {
    owner_->setWaitingMutex(nullptr);
    owner_->noteGiven(section_.holder());
  }
  owner_ = resumeFirst();
  return true;
}

// Whoever unlocked has made `me` the owner. Anything else that woke it has no say, unless nobody in the line
// could be resumed: then the mutex is free.
void KTFiberMutex::waitInLine(IWorker& me) {
  append(me.waitLink);
  do {
    section_.leave();
    suspend(me);
    enterAfterWait(me);
    if (!owner_) {
      remove(me.waitLink);
      owner_ = &me;
    }
  } while (owner_ != &me);
}

void KTFiberMutex::suspend(IWorker& me) {
  if (me.workerType() == kWorkerFiber) {
    me.addRef();  // Dropped by whoever wakes the fiber.
    me.setWaitingMutex(this);
    me.setState(kStateWaiting);
  }
  me.suspend();
}

void KTFiberMutex::enterAfterWait(IWorker& me) {
  if (me.workerType() == kWorkerFiber) {
    static_cast<ORVFiber&>(me).enterAfterWait(section_);
  } else {
    static_cast<ORVThreadMutexDelegate&>(me).enterAfterWait(section_);
  }
}

void KTFiberMutex::append(WaitLink& link) {
  link.previous = tail_.previous;
  link.next = &tail_;
  tail_.previous->next = &link;
  tail_.previous = &link;
}

void KTFiberMutex::remove(WaitLink& link) {
  link.previous->next = link.next;
  link.next->previous = link.previous;
  link.next = link.previous = nullptr;
}

// Takes the first that can be resumed out of the line. The others stay, and are tried again by the next
// unlock: a fiber that finds no thread to go on, and in the child of a fork a thread that isn't there. Null
// when there is none.
IWorker* KTFiberMutex::resumeFirst() {
  for (WaitLink* link = head_.next; link != &tail_; link = link->next) {
    if (!link->worker->resume()) continue;
    remove(*link);
    return link->worker;
  }
  return nullptr;
}

u32 KTFiberMutex::waitersForTest() {
  const SectionGuard guard(section_);
  u32 count = 0;
  for (const WaitLink* link = head_.next; link != &tail_; link = link->next) ++count;
  return count;
}
