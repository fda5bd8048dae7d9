// Nine values that each thread keeps for itself.
//
// Threads of this library tear their slots down when they end, and a thread of the host may. Where it does
// not, nobody else is called for it: no code of a module that may be unloaded any time hooks into the end of
// a foreign thread. A later thread's first use then frees what it left: its worker, unless that still owns a
// mutex, and its caches, whose entries go back to their pools. A thread that ended inside a fiber keeps all,
// in reach of the list of all slots.

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

// Returns the calling thread's value; null for an empty slot and for an index of kSlotCount or above.
inline void* slotGet(u32 index) {
  const auto* const slots = orv::util::hidden::slotsOfCaller();
  return slots && index < kSlotCount ? slots[index].value : nullptr;
}

// Runs the cleanup of the old value, then stores the new one. Returns false for an index of kSlotCount or
// above; true, with nothing stored, when there is no memory for the thread's slots: slotGet shows that.
bool slotSet(u32 index, void* value, SlotCleanup cleanup);

// Runs the cleanups of the calling thread and frees its slots. The thread may fill slots again afterwards. A
// worker that still owns a mutex stays until that is unlocked.
void slotsTearDown();

// Tears the slots down at the end of a scope: the first thing that a host's thread makes.
class ThreadSlotsGuard {
 public:
  ThreadSlotsGuard() = default;
  ~ThreadSlotsGuard() { slotsTearDown(); }
  ThreadSlotsGuard(const ThreadSlotsGuard&) = delete;
  ThreadSlotsGuard& operator=(const ThreadSlotsGuard&) = delete;
};

// Frees what ended threads have left, and waits for any other thread that does so. The caller holds no lock.
void slotsCollect();

// For the unloading of the module: frees, of all threads, the slots that hold no cache and no fiber, and
// frees the thread-local index. No thread may be inside the library; one that comes later starts afresh.
void slotsUnload();

// Returns the number of threads with slots, ended ones that nobody has freed included.
u32 slotOwnersForTest();
