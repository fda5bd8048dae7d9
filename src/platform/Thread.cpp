#include "platform/Thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "platform/Event.h"

namespace orv::platform {

namespace {

// What a new thread needs to begin; lives on the stack of the thread that starts it.
struct Start {
  ThreadEntry entry;
  void* argument;
  ThreadId id = 0;
  Event begun{};
};

void* runThread(void* raw) {
  auto* const start = static_cast<Start*>(raw);
  const ThreadEntry entry = start->entry;
  void* const argument = start->argument;
  start->id = currentThreadId();
  start->begun.signal();  // `start` is gone from here on.
  return reinterpret_cast<void*>(std::uintptr_t{entry(argument)});
}

}  // namespace

__attribute__((noinline)) ThreadId currentThreadId() {
  thread_local ThreadId id = 0;
  if (id == 0) id = static_cast<ThreadId>(gettid());
  return id;
}

bool threadHasEnded(ThreadId id) {
  return syscall(SYS_tgkill, getpid(), id, 0) == -1 && errno == ESRCH;  // Signal 0 only asks.
}

u32 currentProcessId() {
  return static_cast<u32>(getpid());
}

ThreadId startThread(ThreadEntry entry, void* argument) {
  Start start{entry, argument};
  pthread_t thread;
  if (pthread_create(&thread, nullptr, runThread, &start) != 0) return 0;
  pthread_detach(thread);
  start.begun.wait();
  return start.id;
}

void yieldThread() {
  sched_yield();
}

void sleepThread(u32 milliseconds) {
  timespec rest{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1'000'000};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, &rest) == EINTR) {
  }
}

}  // namespace orv::platform
