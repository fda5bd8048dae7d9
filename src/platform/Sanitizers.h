// Which sanitizers the build has, and what the thread sanitizer must hear about our locks.

#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define ORV_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define ORV_TSAN 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define ORV_TSAN 1
#endif
#endif

#if defined(ORV_ASAN)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif
#if defined(ORV_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

// For a function that runs between two stacks: the address sanitizer must not keep its variables elsewhere.
#if defined(ORV_ASAN)
#define ORV_NO_FAKE_FRAME __attribute__((no_sanitize_address))
#else
#define ORV_NO_FAKE_FRAME
#endif

namespace orv::platform::sanitizer {

// Straight before and behind the taking and the freeing of a lock. Between the two the thread sanitizer looks
// away: it takes its order from the lock, and finds locks that are taken in two orders.
#if defined(ORV_TSAN)
inline void locking(void* lock) {
  __tsan_mutex_pre_lock(lock, 0);
}
inline void locked(void* lock) {
  __tsan_mutex_post_lock(lock, 0, 0);
}
inline void unlocking(void* lock) {
  __tsan_mutex_pre_unlock(lock, 0);
}
inline void unlocked(void* lock) {
  __tsan_mutex_post_unlock(lock, 0);
}
inline void lockGone(void* lock) {
  __tsan_mutex_destroy(lock, 0);
}
#else
inline void locking(void*) {}
inline void locked(void*) {}
inline void unlocking(void*) {}
inline void unlocked(void*) {}
inline void lockGone(void*) {}
#endif

}  // namespace orv::platform::sanitizer
