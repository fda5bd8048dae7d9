// What the address and thread sanitizers want to hear about fibers; nothing in a build without them.

#pragma once

#include <cstddef>

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

namespace orv::platform::sanitizer {

// What the sanitizers keep for one fiber.
struct FiberNotes {
#if defined(ORV_ASAN)
  void* fakeStack = nullptr;
  const void* bottom = nullptr;  // Of its stack; a thread's own is learnt at the first switch away from it.
  std::size_t size = 0;
#endif
#if defined(ORV_TSAN)
  void* context = nullptr;
#endif
};

#if defined(ORV_ASAN)

// Only what stands on a stack may point to a block of the heap, so leaks are looked for from there too.
inline void stackMade(void* bottom, std::size_t size) {
  __lsan_register_root_region(bottom, size);
}

// Frames that were never left have poisoned the stack; the next owner of the addresses must not find that.
inline void stackGone(void* bottom, std::size_t size) {
  __lsan_unregister_root_region(bottom, size);
  __asan_unpoison_memory_region(bottom, size);
}

#else

inline void stackMade(void*, std::size_t) {}
inline void stackGone(void*, std::size_t) {}

#endif

inline void threadConverted([[maybe_unused]] FiberNotes& notes) {
#if defined(ORV_TSAN)
  notes.context = __tsan_get_current_fiber();
#endif
}

inline void fiberMade([[maybe_unused]] FiberNotes& notes, [[maybe_unused]] const void* bottom,
                      [[maybe_unused]] std::size_t size) {
#if defined(ORV_ASAN)
  notes.bottom = bottom;
  notes.size = size;
#endif
#if defined(ORV_TSAN)
  notes.context = __tsan_create_fiber(0);
#endif
}

inline void fiberGone([[maybe_unused]] FiberNotes& notes) {
#if defined(ORV_TSAN)
  __tsan_destroy_fiber(notes.context);
#endif
}

// Straight before the switch. `forGood`: nothing will ever switch back to `from`.
inline void leaving([[maybe_unused]] FiberNotes& from, [[maybe_unused]] const FiberNotes& to,
                    [[maybe_unused]] bool forGood) {
#if defined(ORV_ASAN)
  __sanitizer_start_switch_fiber(forGood ? nullptr : &from.fakeStack, to.bottom, to.size);
#endif
#if defined(ORV_TSAN)
  __tsan_switch_to_fiber(to.context, 0);
#endif
}

// Straight after it, on the stack of `here`.
inline void arrived([[maybe_unused]] FiberNotes& cameFrom, [[maybe_unused]] const FiberNotes& here) {
#if defined(ORV_ASAN)
  __sanitizer_finish_switch_fiber(here.fakeStack, &cameFrom.bottom, &cameFrom.size);
#endif
}

}  // namespace orv::platform::sanitizer
