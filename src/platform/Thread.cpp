#include "platform/Thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <memory>
#include <new>

#include "platform/Event.h"
#include "platform/Fork.h"

namespace orv::platform {

namespace {

// What a new thread needs to begin.
struct Start {
  ThreadEntry entry;
  void* argument;
};

// The same with its answer, on the stack of a thread that waits for it.
struct AwaitedStart : Start {
  ThreadId id = 0;
  Event begun{};
};

void* exitCode(u32 code) {
  return reinterpret_cast<void*>(std::uintptr_t{code});
}

void* runAwaited(void* raw) {
  auto* const awaited = static_cast<AwaitedStart*>(raw);
  const Start start = *awaited;
  awaited->id = currentThreadId();
  awaited->begun.signal();  // `awaited` is gone from here on.
  return exitCode(start.entry(start.argument));
}

void* runLaunched(void* raw) {
  const std::unique_ptr<Start> own(static_cast<Start*>(raw));
  return exitCode(own->entry(own->argument));
}

bool startDetached(void* (*run)(void*), void* start) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, run, start) != 0) return false;
  pthread_detach(thread);
  return true;
}

constinit thread_local ThreadId ownId = 0;  // 0 until it is asked for.
constinit std::atomic<ThreadToken> tokensGiven{0};

}  // namespace

__attribute__((noinline)) ThreadId currentThreadId() {
  if (ownId == 0) {
    prepareForForks();
    ownId = static_cast<ThreadId>(gettid());
  }
  return ownId;
}

void forgetThreadId() {
  ownId = 0;
}

__attribute__((noinline)) ThreadToken currentThreadToken() {
  constinit thread_local ThreadToken own = 0;
  if (own == 0) own = 1 + tokensGiven.fetch_add(1, std::memory_order_relaxed);
  return own;
}

bool threadHasEnded(ThreadId id) {
  return syscall(SYS_tgkill, getpid(), id, 0) == -1 && errno == ESRCH;  // Signal 0 only asks.
}

u32 currentProcessId() {
  return static_cast<u32>(getpid());
}

ThreadId startThread(ThreadEntry entry, void* argument) {
  AwaitedStart start{{entry, argument}};
  if (!startDetached(runAwaited, &start)) return 0;
  start.begun.wait();
  return start.id;
}

bool launchThread(ThreadEntry entry, void* argument) {
  auto start = std::unique_ptr<Start>(new (std::nothrow) Start{entry, argument});
  if (!start || !startDetached(runLaunched, start.get())) return false;
  static_cast<void>(start.release());  // The thread's now.
  return true;
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
