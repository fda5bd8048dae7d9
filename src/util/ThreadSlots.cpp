#include "util/ThreadSlots.h"

#include <new>
#include <utility>

#include "platform/CriticalSection.h"
#include "platform/ThreadLocal.h"

namespace {

using orv::platform::SectionGuard;

struct Slot {
  void* value = nullptr;
  SlotCleanup cleanup = nullptr;
};

// The slots of one thread; a node of the list of all.
struct ThreadSlots {
  Slot slots[kSlotCount];
  ThreadSlots* next = nullptr;
  ThreadSlots* previous = nullptr;
};

constinit orv::platform::ThreadLocal slotsOfThread;

// Every thread's slots, so that those of threads which have ended stay in reach.
constinit orv::platform::CriticalSection listSection;
constinit ThreadSlots* list = nullptr;  // Under listSection.

void link(ThreadSlots& slots) {
  const SectionGuard guard(listSection);
  slots.next = list;
  if (list) list->previous = &slots;
  list = &slots;
}

void unlink(const ThreadSlots& slots) {
  const SectionGuard guard(listSection);
  (slots.previous ? slots.previous->next : list) = slots.next;
  if (slots.next) slots.next->previous = slots.previous;
}

ThreadSlots* callersSlots() {
  return static_cast<ThreadSlots*>(slotsOfThread.get());
}

ThreadSlots* makeCallersSlots() {
  auto* const made = new (std::nothrow) ThreadSlots;
  if (!made) return nullptr;
  if (!slotsOfThread.set(made)) {
    delete made;
    return nullptr;
  }
  link(*made);
  return made;
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

}  // namespace

void* slotGet(u32 index) {
  const ThreadSlots* const mine = index < kSlotCount ? callersSlots() : nullptr;
  return mine ? mine->slots[index].value : nullptr;
}

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
  cleanAll(*mine);
  slotsOfThread.set(nullptr);
  unlink(*mine);
  delete mine;
}
