// Fibers of the platform: stacks that a thread switches between on demand.
//
// A thread is converted first: its own stack becomes a fiber too. A fiber runs on one thread at a time and
// may continue on another thread. Each fiber has its own chain of exceptions in flight. The address and
// thread sanitizers follow every switch.

#pragma once

#include <cstddef>

#include "platform/Types.h"

namespace orv::platform {

struct Fiber;

// Must not return, nor throw: either ends the process.
using FiberEntry = void (*)(void* argument);

// Makes the calling thread's stack a fiber, once. Returns that fiber; null when there is no memory.
Fiber* convertThreadToFiber();

// Undoes the conversion. Does nothing on any stack but the thread's own and on a thread that isn't converted.
void convertFiberToThread();

// Frees what an ended thread's conversion made. Ignores null.
void forgetThreadsFiber(Fiber* own);

// Returns the running fiber; null on a thread that isn't converted. Never inlined: calls before and after a
// switch may come from different threads.
Fiber* currentFiber();

// Returns a fiber that stands at its entry; null when there is no memory. The stack is `reserve` bytes,
// rounded up to whole pages, of which the system commits what is touched, above a guard of 64 KiB that
// faults. An overflow ends the process: code that is built as this library is touches each page of its frames
// in turn, and a frame of foreign code would have to be larger than the guard to jump it.
Fiber* createFiber(std::size_t reserve, FiberEntry entry, void* argument);

// Switches as switchToFiber (platform/FiberSwitch.h) does, for the last time: afterwards the current fiber
// can only be deleted.
[[noreturn]] void leaveFiberFor(Fiber* target);

// Frees a fiber that isn't running, and its stack without unwinding it. Ignores null.
void deleteFiber(Fiber* fiber);

}  // namespace orv::platform
