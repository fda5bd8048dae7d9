// Fibers of the platform: stacks that a thread switches between when told to.
//
// A thread is converted first: its own stack becomes a fiber too. A fiber runs on one thread at a time, and
// may go on on another one than it left. Each carries its own chain of exceptions in flight, and the address
// and thread sanitizers are told of every switch.

#pragma once

#include <cstddef>

#include "platform/Types.h"

namespace orv::platform {

struct Fiber;

// Must not return, nor throw: either ends the process.
using FiberEntry = void (*)(void* argument);

// Makes the calling thread's stack a fiber, or gives the one that it is; null when there is no memory.
Fiber* convertThreadToFiber();

// Undoes that; only from the thread's own stack. Otherwise, and on a thread that was not converted, nothing.
void convertFiberToThread();

// The fiber that is running here; null on a thread that was not converted. Never inlined: before and after a
// switch it may be asked on different threads.
Fiber* currentFiber();

// A fiber that stands at its entry; null when there is no memory. The stack is `reserve` bytes, rounded up to
// whole pages, of which the system commits what is touched, above a page that faults: an overflow never
// reaches foreign memory.
Fiber* createFiber(std::size_t reserve, FiberEntry entry, void* argument);

// As switchToFiber (platform/FiberSwitch.h), for the last time: the current fiber must then be deleted and
// never be switched to.
[[noreturn]] void leaveFiberFor(Fiber* target);

// Frees a fiber that isn't running, with its stack; what stands on the stack is not unwound. Null is ignored.
void deleteFiber(Fiber* fiber);

}  // namespace orv::platform
