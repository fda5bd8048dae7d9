#include "platform/ThreadLocal.h"

namespace orv::platform {

bool ThreadLocal::set(void* value) {
  const u32 mine = index();
  return mine != kNone && pthread_setspecific(mine, value) == 0;
}

void ThreadLocal::giveBack() {
  const u32 old = index_.exchange(kNone, std::memory_order_acq_rel);
  if (old != kNone) pthread_key_delete(old);
}

u32 ThreadLocal::index() {
  u32 seen = index_.load(std::memory_order_acquire);
  if (seen != kNone) return seen;
  pthread_key_t fresh;
  if (pthread_key_create(&fresh, nullptr) != 0) return kNone;
  if (index_.compare_exchange_strong(seen, fresh, std::memory_order_acq_rel)) return fresh;
  pthread_key_delete(fresh);  // Another thread was quicker.
  return seen;
}

}  // namespace orv::platform
