#include "util/IWorker.h"

#include <new>

#include "util/ThreadSlots.h"

ORVThreadMutexDelegate::ORVThreadMutexDelegate() : IWorker(orv::platform::currentThreadToken()) {
  [[maybe_unused]] static const bool once = (orv::platform::onForkedChild(surviveFork), true);
  lock_.lock();
}

void ORVThreadMutexDelegate::surviveFork() {
  if (void* const worker = slotGet(kSlotWorker)) {
    static_cast<ORVThreadMutexDelegate*>(static_cast<IWorker*>(worker))->forks_ =
        orv::platform::forksBehindUs();
  }
}

bool ORVThreadMutexDelegate::suspend() {
  while (!resumed_) signal_.wait(lock_);
  resumed_ = false;
  return true;
}

bool ORVThreadMutexDelegate::resume() {
  if (forks_ != orv::platform::forksBehindUs()) return false;
  const KTMutexGuard guard(lock_);
  resumed_ = true;
  signal_.signal();
  return true;
}

// A resume that comes meanwhile is part of the wait: it must not end a later `suspend`.
void ORVThreadMutexDelegate::enterAfterWait(orv::platform::CriticalSection& section) {
  lock_.unlock();
  section.enter();
  lock_.lock();
  resumed_ = false;
}

void releaseWorker(void* worker) {
  static_cast<IWorker*>(worker)->release();
}

namespace {

IWorker* makeDelegate() {
  IWorker* const made = new ORVThreadMutexDelegate;
  made->addRef();
  slotSet(kSlotWorker, made, releaseWorker);
  if (slotGet(kSlotWorker) == made) return made;
  made->release();  // No room for the slot: the thread would not know itself again.
  throw std::bad_alloc();
}

}  // namespace

IWorker* callingWorker() {
  const auto* const slots = orv::util::hidden::slotsOfCaller();
  if (!slots) return makeDelegate();
  void* const fiber = slots[kSlotFiber].value;
  void* const worker = fiber ? fiber : slots[kSlotWorker].value;
  return worker ? static_cast<IWorker*>(worker) : makeDelegate();
}
