// The calling thread, and starting one.

#pragma once

#include "platform/Types.h"

namespace orv::platform {

// The system's number of a thread; never 0, below 2^30. The system reuses the number of a thread that has
// ended.
using ThreadId = u32;

// The process's number of a thread; never 0, never reused. The thread that forks keeps its number in the
// child, where later threads get numbers that no thread of the parent had.
using ThreadToken = u64;

// Neither is inlined: a fiber that calls them before and after a switch may run on two different threads.
ThreadId currentThreadId();
ThreadToken currentThreadToken();
// Makes the next currentThreadId() ask the system: in the child of a fork the thread has a new id.
void forgetThreadId();

u32 currentProcessId();

// Returns whether the thread of this process that had the number has ended; false, too, when a later thread
// has it now.
bool threadHasEnded(ThreadId id);

using ThreadEntry = u32 (*)(void* argument);

// Runs `entry` on a new, detached thread, with the result of `entry` as its exit code. Returns the thread's
// id, once it runs; 0 when the system can't start a thread.
ThreadId startThread(ThreadEntry entry, void* argument);

// Does the same without waiting until the new thread runs. Returns false when there is none.
bool launchThread(ThreadEntry entry, void* argument);

// Lets another thread that is ready run first.
void yieldThread();
void sleepThread(u32 milliseconds);

}  // namespace orv::platform
