// What a fork leaves whole in the child, where only the thread that forked lives on.

#pragma once

#include "platform/CriticalSection.h"

namespace orv::platform {

// Makes sure that forks are seen from now on.
void prepareForForks();

// Runs `step` in the child of every fork, on its only thread, before `fork` returns there. Steps run in the
// order of their registration, with all HeldOverForks free again. Once for each `step`; it is forgotten when
// the module that called this is unloaded.
void onForkedChild(void (*step)());

// Returns how many forks lie between this process and the one that its memory was made in.
u32 forksBehindUs();

// Keeps every other thread out of a section while the process forks, so that the child never finds it held
// by a thread that it doesn't have, nor what it guards half changed. For sections that are held for moments
// only. Made and destroyed with its section. The child of the child is spared the same only for sections
// that live as long as the process: any other may lie on a stack that the child gives to a new thread.
class HeldOverForks {
 public:
  enum Life : bool { kObject, kProcess };

  explicit HeldOverForks(CriticalSection& section, Life life = kObject);
  ~HeldOverForks();
  HeldOverForks(const HeldOverForks&) = delete;
  HeldOverForks& operator=(const HeldOverForks&) = delete;

 private:
  friend class ForkHolder;

  CriticalSection& section_;
  const Life life_;
  const u32 forks_ = forksBehindUs();  // When this was made.
  bool holding_ = false;
  HeldOverForks* next_ = nullptr;
  HeldOverForks** place_ = nullptr;  // The pointer that leads here.
};

}  // namespace orv::platform
