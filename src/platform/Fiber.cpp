#include "platform/Fiber.h"

#include <cxxabi.h>

#include <boost/context/detail/fcontext.hpp>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "platform/FiberSanitizer.h"
#include "platform/FiberStack.h"

namespace orv::platform {

namespace context = boost::context::detail;

namespace {

// The C++ library's record of the exceptions that a thread is handling and unwinding for. Its layout belongs
// to the C++ binary interface.
struct ExceptionsInFlight {
  void* caught = nullptr;
  unsigned uncaught = 0;
};

}  // namespace

struct Fiber {
  context::fcontext_t context = nullptr;  // Where it goes on; null while it runs.
  FiberEntry entry = nullptr;             // Null for a thread's own stack.
  void* argument = nullptr;
  ExceptionsInFlight exceptions;  // While it doesn't run.
  sanitizer::FiberNotes notes;
  FiberStack stack;
};

namespace {

// A thread's own.
struct ThreadState {
  Fiber* current = nullptr;
  ExceptionsInFlight* exceptions = nullptr;  // The live record; known once the thread is converted.
};

constinit thread_local ThreadState state;

// The compiler takes the address of `state` for a constant, so no function that also switches may name it.
__attribute__((noinline)) void setThread(ThreadState own) {
  state = own;
}

// Makes `target` the current fiber, with its record of exceptions in place of that of the one that leaves.
// Gives the latter; null when there is none, or when the target can't be gone to.
__attribute__((noinline)) Fiber* exchangeCurrent(Fiber* target) {
  Fiber* const from = state.current;
  if (!from || !target || !target->context) return nullptr;
  from->exceptions = std::exchange(*state.exceptions, target->exceptions);
  state.current = target;
  return from;
}

// On the stack of `here`, which the switch has just reached.
void arrive(context::transfer_t transfer, const Fiber& here) {
  Fiber& cameFrom = *static_cast<Fiber*>(transfer.data);
  cameFrom.context = transfer.fctx;
  sanitizer::arrived(cameFrom.notes, here.notes);
}

context::transfer_t jump(Fiber& from, Fiber& to, bool forGood) {
  sanitizer::leaving(from.notes, to.notes, forGood);
  return context::jump_fcontext(std::exchange(to.context, nullptr), &from);
}

// An exception that gets here finds no handler, and ends the process with its stack as it was.
void fiberMain(context::transfer_t transfer) noexcept {
  const Fiber& me = *currentFiber();
  arrive(transfer, me);
  me.entry(me.argument);
  std::terminate();
}

}  // namespace

__attribute__((noinline)) Fiber* currentFiber() {
  return state.current;
}

Fiber* convertThreadToFiber() {
  if (Fiber* const already = currentFiber()) return already;
  auto* const own = new (std::nothrow) Fiber;
  if (!own) return nullptr;
  sanitizer::threadConverted(own->notes);
  setThread({own, reinterpret_cast<ExceptionsInFlight*>(abi::__cxa_get_globals())});
  return own;
}

void convertFiberToThread() {
  Fiber* const own = currentFiber();
  if (!own || own->entry) return;
  setThread({});
  delete own;
}

Fiber* createFiber(std::size_t reserve, FiberEntry entry, void* argument) {
  auto made = std::unique_ptr<Fiber>(new (std::nothrow) Fiber);
  if (!made || !made->stack.allocate(reserve)) return nullptr;
  made->entry = entry;
  made->argument = argument;
  made->context = context::make_fcontext(made->stack.top(), made->stack.size(), fiberMain);
  sanitizer::fiberMade(made->notes, made->stack.bottom(), made->stack.size());
  return made.release();
}

bool switchToFiber(Fiber* target) {
  Fiber* const from = exchangeCurrent(target);
  if (!from) return false;
  arrive(jump(*from, *target, false), *from);
  return true;
}

void leaveFiberFor(Fiber* target) {
  if (Fiber* const from = exchangeCurrent(target)) jump(*from, *target, true);
  std::terminate();
}

void deleteFiber(Fiber* fiber) {
  if (!fiber) return;
  sanitizer::fiberGone(fiber->notes);
  delete fiber;
}

}  // namespace orv::platform
