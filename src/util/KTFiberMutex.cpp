#include "util/KTFiberMutex.h"

#include "util/ThreadSlots.h"

using orv::platform::SectionGuard;

namespace {

constexpr int kStateWaiting = 3;

// What the two ends of the line carry in place of a worker.
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
  if (!owner_) {
    owner_ = me;
  } else if (owner_ == me) {
    ++recursion_;
  } else {
    waitInLine(*me);
  }
  return true;
}

bool KTFiberMutex::unlock() {
  const SectionGuard guard(section_);
  if (recursion_ > 0) {
    --recursion_;
    return true;
  }
  lastOwner_ = owner_;
  if (owner_) owner_->setWaitingMutex(nullptr);
  owner_ = resumeFirst();
  return true;
}

// Whoever unlocked has made `me` the owner; anything else that woke it has no say.
void KTFiberMutex::waitInLine(IWorker& me) {
  append(me.waitLink);
  do {
    section_.leave();
    suspend(me);
    section_.enter();
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

void KTFiberMutex::append(WaitLink& link) {
  link.previous = tail_.previous;
  link.next = &tail_;
  tail_.previous->next = &link;
  tail_.previous = &link;
}

// Null when nobody waits.
IWorker* KTFiberMutex::takeFirst() {
  WaitLink* const first = head_.next;
  if (first == &tail_) return nullptr;
  head_.next = first->next;
  first->next->previous = &head_;
  first->next = first->previous = nullptr;
  return first->worker;
}

IWorker* KTFiberMutex::resumeFirst() {
  for (;;) {
    IWorker* const next = takeFirst();
    if (!next || next->resume()) return next;
  }
}

u32 KTFiberMutex::waitersForTest() {
  const SectionGuard guard(section_);
  u32 count = 0;
  for (const WaitLink* link = head_.next; link != &tail_; link = link->next) ++count;
  return count;
}
