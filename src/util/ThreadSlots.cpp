#include "util/ThreadSlots.h"

#include <algorithm>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/CriticalSection.h"
#include "platform/Thread.h"
#include "platform/ThreadLocal.h"

namespace {

namespace platform = orv::platform;
using orv::util::hidden::slotsOfThread;
using platform::SectionGuard;
using Slot = orv::util::hidden::ThreadSlot;

// The slots of one thread; a node of the list of all.
struct ThreadSlots {
  Slot slots[kSlotCount];  // First: the index leads here.
  platform::ThreadId thread = platform::currentThreadId();
  u32 process = platform::currentProcessId();
  ThreadSlots* next = nullptr;
};

// Every thread's slots.
constinit platform::CriticalSection listSection;
constinit ThreadSlots* list = nullptr;  // Under listSection, as are the next two.
constinit u32 listed = 0;
constinit u32 nextCollection = 64;  // `listed` at which the ended threads are looked for.

// Takes out of the list, and gives, whatever `chosen` picks. Under listSection.
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

// Caches and fibers are left to those who know them, and threads of the library, which hold no count on their
// worker, to themselves.
bool mayBeFreed(const ThreadSlots& all) {
  const Slot& worker = all.slots[kSlotWorker];
  return std::none_of(all.slots, all.slots + kSlotWorker, [](const Slot& slot) { return slot.value; }) &&
         (!worker.value || worker.cleanup);
}

// A living thread's slots are its own: they aren't even looked at. In a forked child the numbers of the
// parent's threads mean nothing.
bool isAbandoned(const ThreadSlots& all) {
  return all.process == platform::currentProcessId() && platform::threadHasEnded(all.thread) &&
         mayBeFreed(all);
}

// Adds the slots, and takes out what threads that have ended left. Looking for them costs a system call a
// thread, so that is done only once the list has doubled.
ThreadSlots* exchangeForAbandoned(ThreadSlots& added) {
  const SectionGuard guard(listSection);
  ThreadSlots* abandoned = nullptr;
  if (listed >= nextCollection) {
    abandoned = takeFromList(isAbandoned);
    nextCollection = std::max(64u, 2 * listed);
  }
  added.next = list;
  list = &added;
  ++listed;
  return abandoned;
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

ThreadSlots* makeCallersSlots() {
  auto made = std::unique_ptr<ThreadSlots>(new (std::nothrow) ThreadSlots);
  if (!made || !slotsOfThread.set(made.get())) return nullptr;
  destroyEach(exchangeForAbandoned(*made));
  return made.release();
}

}  // namespace

bool slotSet(u32 index, void* value, SlotCleanup cleanup) {
  if (index >= kSlotCount) return false;
  ThreadSlots* mine = callersSlots();
  if (!mine) mine = makeCallersSlots();
  if (!mine) return true;
  clean(mine->slots[index]);
  mine->slots[index] = {value, cleanup};
  return true;
}

void slotsTearDown() {
  ThreadSlots* const mine = callersSlots();
  if (!mine) return;
  {
    const SectionGuard guard(listSection);
    takeFromList([mine](const ThreadSlots& slots) { return &slots == mine; });
  }
  cleanAll(*mine);
  slotsOfThread.set(nullptr);
  delete mine;
}

void slotsUnload() {
  slotsOfThread.giveBack();
  ThreadSlots* freed = nullptr;
  {
    const SectionGuard guard(listSection);
    freed = takeFromList(mayBeFreed);
  }
  destroyEach(freed);
}

u32 slotOwnersForTest() {
  const SectionGuard guard(listSection);
  return listed;
}
