// The library's locks beside the standard library's and beside the bare kernel wake that every hand-over
// costs.
//
// Uncontended figures are one lock and one unlock. Hand-over figures are one passing of the lock (or of the
// bare word) from one thread to the other and back.

#include <benchmark/benchmark.h>

#include <mutex>
#include <thread>

#include "platform/Futex.h"
#include "util/ORVThreadUtils.h"

namespace {

using orv::platform::futexWait;
using orv::platform::futexWakeOne;

template <class Mutex>
void lockAndUnlock(benchmark::State& state, Mutex& mutex) {
  for (auto _ : state) {
    mutex.lock();
    benchmark::ClobberMemory();
    mutex.unlock();
  }
}

void uncontended_std_recursive_mutex(benchmark::State& state) {
  std::recursive_mutex mutex;
  lockAndUnlock(state, mutex);
}

void uncontended_KTThreadOnlyMutex(benchmark::State& state) {
  KTThreadOnlyMutex mutex{state.range(0) != 0};
  lockAndUnlock(state, mutex);
}

void uncontended_KTFiberMutex(benchmark::State& state) {
  KTFiberMutex mutex;
  lockAndUnlock(state, mutex);
}

// Two threads that wake each other through one word, with nothing around it.
void handover_bare_futex(benchmark::State& state) {
  std::atomic<u32> turn{0};
  std::atomic<bool> done{false};
  const auto pass = [&](u32 mine, u32 theirs) {
    while (turn.load() != mine && !done) futexWait(turn, theirs);
    turn.store(theirs);
    futexWakeOne(turn);
  };
  std::thread other([&] {
    while (!done) pass(1, 0);
  });
  for (auto _ : state) {
    pass(0, 1);
    while (turn.load() != 0) futexWait(turn, 1);
  }
  done = true;
  turn = 1;
  futexWakeOne(turn);
  other.join();
}

template <class Round>
void inTwoThreads(benchmark::State& state, Round round) {
  std::atomic<bool> done{false};
  std::thread other([&] {
    while (!done) round(done);
  });
  for (auto _ : state) round(done);
  done = true;
  other.join();
}

// Each holds the lock until the other stands in line, so that every unlock passes it on.
void handover_KTFiberMutex(benchmark::State& state) {
  KTFiberMutex mutex;
  inTwoThreads(state, [&](const std::atomic<bool>& done) {
    mutex.lock();
    while (mutex.waitersForTest() == 0 && !done) orv::platform::spinPause();
    mutex.unlock();
  });
}

// These let whoever is awake barge in: most of their rounds pass nothing on. Shown for what a plain lock
// does.
template <class Mutex>
void contend(benchmark::State& state, Mutex& mutex) {
  inTwoThreads(state, [&](const std::atomic<bool>&) {
    mutex.lock();
    mutex.unlock();
  });
}
void barging_std_recursive_mutex(benchmark::State& state) {
  std::recursive_mutex mutex;
  contend(state, mutex);
}
void barging_KTThreadOnlyMutex(benchmark::State& state) {
  KTThreadOnlyMutex mutex{false};
  contend(state, mutex);
}

void secondThread(benchmark::State& state) {
  for (auto _ : state) std::thread([] {}).join();
}

// The C library's lock goes without atomic instructions until the process starts its second thread, and so do
// ours: first that, then, from here on, what a server sees.
BENCHMARK(uncontended_std_recursive_mutex)->Name("alone/std_recursive_mutex");
BENCHMARK(uncontended_KTThreadOnlyMutex)->Name("alone/KTThreadOnlyMutex")->ArgName("tracked")->Arg(0)->Arg(1);
BENCHMARK(uncontended_KTFiberMutex)->Name("alone/KTFiberMutex");
BENCHMARK(secondThread)->Iterations(1);
BENCHMARK(uncontended_std_recursive_mutex);
BENCHMARK(uncontended_KTThreadOnlyMutex)->ArgName("tracked")->Arg(0)->Arg(1);
BENCHMARK(uncontended_KTFiberMutex);
BENCHMARK(handover_bare_futex)->UseRealTime();
BENCHMARK(handover_KTFiberMutex)->UseRealTime();
BENCHMARK(barging_std_recursive_mutex)->UseRealTime();
BENCHMARK(barging_KTThreadOnlyMutex)->UseRealTime();

}  // namespace
