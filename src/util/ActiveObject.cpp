#include "util/ActiveObject.h"

#include "util/KTThrowable.h"

ActiveObject::ActiveObject(IMutex* lock) : lock_(lock) {
  KT_ASSERT(lock_);
}

void ActiveObject::activate() {
  const KTMutexGuard guard(*lock_);
  if (++activeCount_ == 1) onActive();
}

void ActiveObject::deactivate() {
  const KTMutexGuard guard(*lock_);
  if (--activeCount_ == 0) onInactive();
}

bool ActiveObject::isActive() {
  const KTMutexGuard guard(*lock_);
  return activeCount_ > 0;
}
