// The calling thread, and starting one.

#pragma once

#include "platform/Types.h"

namespace orv::platform {

// The system's number of a thread; never 0, below 2^30. The system gives the number of a thread that has
// ended to a later one.
using ThreadId = u32;

// Never inlined: a fiber that calls it before and after a switch may stand on two different threads.
ThreadId currentThreadId();
u32 currentProcessId();

// Whether the thread of this process that had the number has ended. False, too, when a later thread has it
// now.
bool threadHasEnded(ThreadId id);

using ThreadEntry = u32 (*)(void* argument);

// Runs `entry` on a new thread that nobody waits for; what `entry` returns is its exit code. 0 when the
// system has no thread to give.
ThreadId startThread(ThreadEntry entry, void* argument);

// Lets another thread that is ready run first.
void yieldThread();
void sleepThread(u32 milliseconds);

}  // namespace orv::platform
