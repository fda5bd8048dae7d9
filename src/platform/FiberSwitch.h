// The switch from one fiber to another, inline: a processor predicts where a return goes from the calls
// before it, and right behind a switch it is wrong. That costs more than all the rest.

#pragma once

#include <boost/context/detail/fcontext.hpp>

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
  boost::context::detail::fcontext_t context = nullptr;  // Where it continues; null while it runs.
  FiberEntry entry = nullptr;                            // Null for a thread's own stack.
  void* argument = nullptr;
  ExceptionsInFlight exceptions;  // While it doesn't run.
  sanitizer::FiberNotes notes;
  FiberStack stack;
};

namespace hidden {

// Makes `target` the current fiber and installs its record of exceptions. Returns the fiber that leaves; null
// on a thread that isn't converted and for a target that can't be switched to. Never inlined: the thread may
// be another one after the switch.
__attribute__((noinline)) Fiber* exchangeCurrent(Fiber* target);

// Runs on the stack of `here`, straight after the switch.
ORV_NO_FAKE_FRAME inline void arrive(boost::context::detail::transfer_t transfer, const Fiber& here) {
  Fiber& cameFrom = *static_cast<Fiber*>(transfer.data);
  cameFrom.context = transfer.fctx;
  sanitizer::arrived(cameFrom.notes, here.notes);
}

ORV_NO_FAKE_FRAME inline boost::context::detail::transfer_t jump(Fiber& from, Fiber& to, bool forGood) {
  const boost::context::detail::fcontext_t target = to.context;
  to.context = nullptr;
  sanitizer::leaving(from.notes, to.notes, forGood);
  return boost::context::detail::jump_fcontext(target, &from);
}

}  // namespace hidden

// Leaves the current fiber for `target`; returns true when somebody switches back. Returns false at once for
// a null target, for one that is running, and on a thread that isn't converted.
ORV_NO_FAKE_FRAME inline bool switchToFiber(Fiber* target) {
  Fiber* const from = hidden::exchangeCurrent(target);
  if (!from) return false;
  hidden::arrive(hidden::jump(*from, *target, false), *from);
  return true;
}

}  // namespace orv::platform
