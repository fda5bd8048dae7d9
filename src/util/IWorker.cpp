#include "util/IWorker.h"

#include <new>

#include "util/ThreadSlots.h"

bool ORVThreadMutexDelegate::suspend() {
  while (!resumed_) signal_.wait(lock_);
  resumed_ = false;
  return true;
}

bool ORVThreadMutexDelegate::resume() {
  const KTMutexGuard guard(lock_);
  resumed_ = true;
  signal_.signal();
  return true;
}

namespace {

void releaseWorker(void* worker) {
  static_cast<IWorker*>(worker)->release();
}

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
