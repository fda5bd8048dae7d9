// Nine values that each thread keeps for itself.
//
// Threads of this library tear their slots down when they end. On a thread of the host nobody does: no code
// of a module that may be unloaded any time hooks into the end of a foreign thread. The caches and fibers
// that such a thread leaves stay as they are, in reach of the list of all slots; where it leaves only its
// worker and its depth, as in every use of the plug-in, a later thread's first use frees them.

#pragma once

#include "platform/ThreadLocal.h"
#include "platform/Types.h"

inline constexpr u32 kSlotPoolCacheFirst = 0;  // 0 to 4: per-thread caches of pools.
inline constexpr u32 kSlotPoolCacheLast = 4;
inline constexpr u32 kSlotFiber = 5;         // The ORVFiber that runs on the thread, if one does.
inline constexpr u32 kSlotMainFiber = 6;     // The thread's own fiber, once it has been converted.
inline constexpr u32 kSlotWorker = 7;        // The thread's KTThread or ORVThreadMutexDelegate.
inline constexpr u32 kSlotTrackedDepth = 8;  // How many tracked mutexes the thread holds.
inline constexpr u32 kSlotCount = 9;

using SlotCleanup = void (*)(void* value);  // May be null.

namespace orv::util::hidden {

struct ThreadSlot {
  void* value = nullptr;
  SlotCleanup cleanup = nullptr;
};

// Leads to the calling thread's array of kSlotCount.
inline constinit platform::ThreadLocal slotsOfThread;

inline const ThreadSlot* slotsOfCaller() {
  return static_cast<const ThreadSlot*>(slotsOfThread.get());
}

}  // namespace orv::util::hidden

// The calling thread's value; null for an empty slot and for an index of kSlotCount or above.
inline void* slotGet(u32 index) {
  const auto* const slots = orv::util::hidden::slotsOfCaller();
  return slots && index < kSlotCount ? slots[index].value : nullptr;
}

// Runs the cleanup of the old value, then stores the new one. False for an index of kSlotCount or above. A
// thread that has no slots yet and no memory for them keeps none, which still gives true: who must know asks
// slotGet.
bool slotSet(u32 index, void* value, SlotCleanup cleanup);

// Runs the cleanups of the calling thread and frees its slots. The thread may fill slots again afterwards.
void slotsTearDown();

// For the unloading of the module: frees, of all threads, the slots that hold no cache and no fiber, and
// gives the thread-local index back. No thread may be inside the library; one that comes later starts afresh.
void slotsUnload();

// Threads that have slots now, ended ones that nobody freed among them.
u32 slotOwnersForTest();
