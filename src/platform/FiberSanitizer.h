// Reports fibers to the address and thread sanitizers; empty in a build without them.

#pragma once

#include <cstddef>

#include "platform/Sanitizers.h"

namespace orv::platform::sanitizer {

// What the sanitizers keep for one fiber.
struct FiberNotes {
#if defined(ORV_ASAN)
  void* fakeStack = nullptr;
  const void* bottom = nullptr;  // Of its stack; for a thread's own, known from the first switch away on.
  std::size_t size = 0;
#endif
#if defined(ORV_TSAN)
  void* context = nullptr;
#endif
};

#if defined(ORV_ASAN)

// A block of the heap may be referenced from a fiber's stack alone, so the leak check must search stacks too.
inline void stackMade(void* bottom, std::size_t size) {
  __lsan_register_root_region(bottom, size);
}

// Frames that never returned leave their poison on the stack; the next owner of the memory must not meet it.
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

// Straight before the switch. `forGood`: nothing will ever switch back to `from`, whose fake frames are freed
// at once.
ORV_NO_FAKE_FRAME inline void leaving([[maybe_unused]] FiberNotes& from,
                                      [[maybe_unused]] const FiberNotes& to, [[maybe_unused]] bool forGood) {
#if defined(ORV_ASAN)
  __sanitizer_start_switch_fiber(forGood ? nullptr : &from.fakeStack, to.bottom, to.size);
#endif
#if defined(ORV_TSAN)
  __tsan_switch_to_fiber(to.context, 0);
#endif
}

// Straight after it, on the stack of `here`.
ORV_NO_FAKE_FRAME inline void arrived([[maybe_unused]] FiberNotes& cameFrom,
                                      [[maybe_unused]] const FiberNotes& here) {
#if defined(ORV_ASAN)
  __sanitizer_finish_switch_fiber(here.fakeStack, &cameFrom.bottom, &cameFrom.size);
#endif
}

}  // namespace orv::platform::sanitizer
