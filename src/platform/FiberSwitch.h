// The switch from one fiber to another, inline: a processor predicts each return from the call before it, and
// a return right behind a switch has another one's before it. That guess costs more than all the rest.

#pragma once

#include <boost/context/detail/fcontext.hpp>
#include <utility>

#include "platform/Fiber.h"
#include "platform/FiberSanitizer.h"
#include "platform/FiberStack.h"

namespace orv::platform {

// The C++ library's record of the exceptions that a thread is handling and unwinding for. Its layout belongs
// to the C++ binary interface.
struct ExceptionsInFlight {
  void* caught = nullptr;
  unsigned uncaught = 0;
};

struct Fiber {
  boost::context::detail::fcontext_t context = nullptr;  // Where it goes on; null while it runs.
  FiberEntry entry = nullptr;                            // Null for a thread's own stack.
  void* argument = nullptr;
  ExceptionsInFlight exceptions;  // While it doesn't run.
  sanitizer::FiberNotes notes;
  FiberStack stack;
};

namespace hidden {

// Makes `target` the current fiber, with its record of exceptions in place of that of the one that leaves.
// Gives the latter; null when there is none, or when the target can't be gone to. Never inlined: the thread
// may be another one behind the switch.
__attribute__((noinline)) Fiber* exchangeCurrent(Fiber* target);

// On the stack of `here`, which the switch has just reached.
inline void arrive(boost::context::detail::transfer_t transfer, const Fiber& here) {
  Fiber& cameFrom = *static_cast<Fiber*>(transfer.data);
  cameFrom.context = transfer.fctx;
  sanitizer::arrived(cameFrom.notes, here.notes);
}

inline boost::context::detail::transfer_t jump(Fiber& from, Fiber& to, bool forGood) {
  sanitizer::leaving(from.notes, to.notes, forGood);
  return boost::context::detail::jump_fcontext(std::exchange(to.context, nullptr), &from);
}

}  // namespace hidden

// Leaves the current fiber for `target`, and comes back when somebody switches to the one left. False, at
// once, for a null target, for one that is running, and on a thread that was not converted.
inline bool switchToFiber(Fiber* target) {
  Fiber* const from = hidden::exchangeCurrent(target);
  if (!from) return false;
  hidden::arrive(hidden::jump(*from, *target, false), *from);
  return true;
}

}  // namespace orv::platform
