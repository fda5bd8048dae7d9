#include "util/ThreadSlots.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/CriticalSection.h"
#include "platform/Fiber.h"
#include "platform/Fork.h"
#include "platform/Thread.h"
#include "platform/ThreadLocal.h"
#include "util/IWorker.h"

namespace {

namespace platform = orv::platform;
using orv::util::hidden::slotsOfThread;
using platform::SectionGuard;
using Slot = orv::util::hidden::ThreadSlot;

// The slots of one thread; a node of the list of all.
struct ThreadSlots {
  Slot slots[kSlotCount];  // First: the index leads here.
  platform::ThreadId thread = platform::currentThreadId();
  std::atomic<u32> changes{0};  // Shows what the thread has stored to whoever takes the slots over.
  ThreadSlots* next = nullptr;
};

// Threads still end when other things of static storage are gone already: this section never is.
union Undying {
  platform::CriticalSection section{};
  ~Undying() {}
};
constinit Undying undying;
constinit platform::CriticalSection& listSection = undying.section;
// Every thread's slots.
constinit ThreadSlots* list = nullptr;  // Under listSection, as are the next two.
constinit u32 listed = 0;
constinit u32 nextCollection = 64;  // `listed` at which the ended threads are looked for.
// Slots of threads that a fork left in the parent. What they lead to may be half changed: it stays as it is.
constinit ThreadSlots* leftInParent = nullptr;

// Held from the taking of ended threads' slots until they are freed. Only tried where other locks may be
// held. The thread sanitizer, which wants to see a lock always or never, knows nothing of it.
constinit platform::CriticalSection collecting{platform::CriticalSection::kChangesHands};

// Takes whatever `chosen` picks out of the list and returns it. Under listSection.
template <class Choice>
ThreadSlots* takeFromList(Choice chosen) {
  ThreadSlots* taken = nullptr;
  for (ThreadSlots** place = &list; *place;) {
    ThreadSlots* const slots = *place;
    if (chosen(*slots)) {
      *place = std::exchange(slots->next, taken);
      taken = slots;
      --listed;
    } else {
      place = &slots->next;
    }
  }
  return taken;
}

// What is freed only on its thread, or for one that has ended.
bool holdsMoreThanWorker(const ThreadSlots& all) {
  if (all.slots[kSlotMainFiber].value) return true;
  return std::any_of(all.slots, all.slots + kSlotPoolCacheLast + 1,
                     [](const Slot& slot) { return slot.value; });
}

// A fiber that an ended thread was in is left to those who know it; threads of the library, which hold no
// count on their worker, to themselves; and a worker that owns a mutex to whoever unlocks that.
bool mayBeFreed(const ThreadSlots& all) {
  if (all.slots[kSlotFiber].value) return false;
  const Slot& worker = all.slots[kSlotWorker];
  return !worker.value || (worker.cleanup && static_cast<IWorker*>(worker.value)->ownsNothing());
}

// A living thread's slots are its own: they aren't even looked at.
bool isAbandoned(const ThreadSlots& all) {
  if (!platform::threadHasEnded(all.thread)) return false;
  static_cast<void>(all.changes.load(std::memory_order_acquire));
  return mayBeFreed(all);
}

static_assert(std::is_standard_layout_v<ThreadSlots>);

ThreadSlots* callersSlots() {
  return static_cast<ThreadSlots*>(slotsOfThread.get());
}

// The slot is empty while its cleanup runs.
void clean(Slot& slot) {
  const Slot old = std::exchange(slot, {});
  if (old.cleanup) old.cleanup(old.value);
}

// A cleanup may fill another slot; those are cleaned in the next round.
void cleanAll(ThreadSlots& all) {
  for (bool found = true; found;) {
    found = false;
    for (Slot& slot : all.slots) {
      if (!slot.value && !slot.cleanup) continue;
      clean(slot);
      found = true;
    }
  }
}

void destroyEach(ThreadSlots* first) {
  while (first) {
    ThreadSlots* const slots = std::exchange(first, first->next);
    cleanAll(*slots);
    delete slots;
  }
}

// Under `collecting`.
void collectEnded() {
  ThreadSlots* ended = nullptr;
  {
    const SectionGuard guard(listSection);
    ended = takeFromList(isAbandoned);
    nextCollection = std::max(64u, 2 * listed);
  }
  for (ThreadSlots* slots = ended; slots; slots = slots->next) {
    void* const own = std::exchange(slots->slots[kSlotMainFiber], {}).value;
    platform::forgetThreadsFiber(static_cast<platform::Fiber*>(own));
  }
  destroyEach(ended);
}

// Adds the slots of a new thread. Looking for ended threads costs a system call a thread, so that is done
// only once the list has doubled. Returns whether it has.
bool addToList(ThreadSlots& added) {
  const SectionGuard guard(listSection);
  added.next = list;
  list = &added;
  return ++listed > nextCollection;
}

// The only thread of a forked child has a new id, and no other thread's slots have an owner.
void keepOwnSlots() {
  ThreadSlots* const mine = callersSlots();
  ThreadSlots* const others = takeFromList([mine](const ThreadSlots& slots) { return &slots != mine; });
  ThreadSlots** end = &leftInParent;
  while (*end) end = &(*end)->next;
  *end = others;
  if (mine) mine->thread = platform::currentThreadId();
}

void guardListOverForks() {
  static const platform::HeldOverForks heldCollecting(collecting, platform::HeldOverForks::kProcess);
  static const platform::HeldOverForks heldList(listSection, platform::HeldOverForks::kProcess);
  [[maybe_unused]] static const bool once = (platform::onForkedChild(keepOwnSlots), true);
}

ThreadSlots* makeCallersSlots() {
  guardListOverForks();
  ThreadSlots* const made = new (std::nothrow) ThreadSlots;
  if (!made || !slotsOfThread.set(made)) {
    delete made;
    return nullptr;
  }
  if (addToList(*made) && collecting.tryEnterUnseen()) {
    collectEnded();
    collecting.leaveUnseen();
  }
  return made;
}

}  // namespace

bool slotSet(u32 index, void* value, SlotCleanup cleanup) {
  if (index >= kSlotCount) return false;
  ThreadSlots* mine = callersSlots();
  if (!mine) mine = makeCallersSlots();
  if (!mine) return true;
  clean(mine->slots[index]);
  mine->slots[index] = {value, cleanup};
  mine->changes.store(mine->changes.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  return true;
}

void slotsTearDown() {
  ThreadSlots* const mine = callersSlots();
  if (!mine) return;
  const Slot worker = mine->slots[kSlotWorker];
  const bool keepsWorker =
      worker.cleanup == releaseWorker && !static_cast<IWorker*>(worker.value)->ownsNothing();
  if (keepsWorker) mine->slots[kSlotWorker] = {};
  cleanAll(*mine);
  slotsOfThread.set(nullptr);
  if (keepsWorker) {
    mine->slots[kSlotWorker] = worker;
    mine->changes.store(0, std::memory_order_release);
    return;
  }
  {
    const SectionGuard guard(listSection);
    takeFromList([mine](const ThreadSlots& slots) { return &slots == mine; });
  }
  delete mine;
}

void slotsCollect() {
  if (collecting.isHeldByCaller()) return;  // A cleanup wants it, in the middle of a collection.
  collecting.enterUnseen();
  collectEnded();
  collecting.leaveUnseen();
}

void slotsUnload() {
  slotsOfThread.giveBack();
  ThreadSlots* freed = nullptr;
  {
    const SectionGuard guard(listSection);
    freed = takeFromList([](const ThreadSlots& all) { return !holdsMoreThanWorker(all) && mayBeFreed(all); });
  }
  destroyEach(freed);
}

u32 slotOwnersForTest() {
  const SectionGuard guard(listSection);
  return listed;
}
