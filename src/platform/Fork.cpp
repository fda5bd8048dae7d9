#include "platform/Fork.h"

#include <pthread.h>

#include <utility>

namespace orv::platform {

namespace {

constinit std::atomic<u32> forks{0};

}  // namespace

// Takes all sections before a fork and frees them behind it.
class ForkHolder {
 public:
  // In no fixed order, for the sections know none among each other: with one in hand, the others are only
  // tried, and after a failure all begins anew with the one that was taken.
  static void holdAll() {
    section.enterUnseen();
    HeldOverForks* first = nullptr;
    do {
      first = tryAll(first);
    } while (first);
  }
  static void freeAll() {
    freeEach();
    section.leaveUnseen();
  }
  static void freeInChild() {
    forks.fetch_add(1, std::memory_order_relaxed);
    forgetThreadId();
    freeAll();
    forgetObjects();
  }

  static void add(HeldOverForks& held) {
    const ListGuard guard;
    held.next_ = list;
    if (list) list->place_ = &held.next_;
    held.place_ = &list;
    list = &held;
  }
  static void remove(HeldOverForks& held) {
    const ListGuard guard;
    if (held.life_ == HeldOverForks::kObject && held.forks_ != forksBehindUs()) return;  // Forgotten.
    unlink(held);
  }

 private:
  // The thread sanitizer must see this section all the time or never.
  struct ListGuard {
    ListGuard() { section.enterUnseen(); }
    ~ListGuard() { section.leaveUnseen(); }
    ListGuard(const ListGuard&) = delete;
    ListGuard& operator=(const ListGuard&) = delete;
  };

  static void unlink(HeldOverForks& held) {
    *held.place_ = held.next_;
    if (held.next_) held.next_->place_ = held.place_;
  }

  // The child has lost the threads on whose stacks some of them may lie.
  static void forgetObjects() {
    for (HeldOverForks* held = list; held; held = held->next_) {
      if (held->life_ == HeldOverForks::kObject) unlink(*held);
    }
  }

  // Waits for `first`, if there is one. Returns the section that somebody else held; null when all are taken.
  static HeldOverForks* tryAll(HeldOverForks* first) {
    if (first) {
      first->section_.enterUnseen();
      first->holding_ = true;
    }
    for (HeldOverForks* held = list; held; held = held->next_) {
      if (held->holding_ || held->section_.isHeldByCaller()) continue;  // The child's thread holds it, too.
      held->holding_ = held->section_.tryEnterUnseen();
      if (held->holding_) continue;
      freeEach();
      return held;
    }
    return nullptr;
  }
  static void freeEach() {
    for (HeldOverForks* held = list; held; held = held->next_) {
      if (std::exchange(held->holding_, false)) held->section_.leaveUnseen();
    }
  }

  static inline constinit CriticalSection section;
  static inline constinit HeldOverForks* list = nullptr;  // Under the section.
};

void prepareForForks() {
  static const int failed = pthread_atfork(ForkHolder::holdAll, ForkHolder::freeAll, ForkHolder::freeInChild);
  static_cast<void>(failed);  // For want of memory: forks go on without.
}

void onForkedChild(void (*step)()) {
  prepareForForks();  // Its step comes first.
  static_cast<void>(pthread_atfork(nullptr, nullptr, step));
}

u32 forksBehindUs() {
  return forks.load(std::memory_order_relaxed);
}

HeldOverForks::HeldOverForks(CriticalSection& section, Life life) : section_(section), life_(life) {
  prepareForForks();
  ForkHolder::add(*this);
}

HeldOverForks::~HeldOverForks() {
  ForkHolder::remove(*this);
}

}  // namespace orv::platform
