#include "platform/Fiber.h"

#include <cxxabi.h>

#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "platform/FiberSwitch.h"

namespace orv::platform {

namespace context = boost::context::detail;

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

// An exception that gets here finds no handler, and ends the process with its stack as it was.
ORV_NO_FAKE_FRAME void fiberMain(context::transfer_t transfer) noexcept {
  const Fiber& me = *currentFiber();
  hidden::arrive(transfer, me);
  me.entry(me.argument);
  std::terminate();
}

}  // namespace

Fiber* hidden::exchangeCurrent(Fiber* target) {
  Fiber* const from = state.current;
  if (!from || !target || !target->context) return nullptr;
  from->exceptions = std::exchange(*state.exceptions, target->exceptions);
  state.current = target;
  return from;
}

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

void forgetThreadsFiber(Fiber* own) {
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

ORV_NO_FAKE_FRAME void leaveFiberFor(Fiber* target) {
  if (Fiber* const from = hidden::exchangeCurrent(target)) hidden::jump(*from, *target, true);
  std::terminate();
}

void deleteFiber(Fiber* fiber) {
  if (!fiber) return;
  sanitizer::fiberGone(fiber->notes);
  delete fiber;
}

}  // namespace orv::platform
