// Fibers beside Boost.Context and Boost.Fiber, and the hand-over of a lock beside the standard library's.
//
// made_and_ended: a fiber comes, does nothing and goes, its stack kept for the next one in all rows.
// switch: from one stack to another and back, two switches an iteration.
// wait: a fiber waits for a lock and gets it. Ours is resumed as the design states, on a thread that is
// started for it; "thread_start" is that share alone, and "wait/KTFiberMutex_bare" the wait without it.
// handover: a lock goes to another thread and back.

#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/context/fiber.hpp>
#include <boost/context/pooled_fixedsize_stack.hpp>
#include <boost/fiber/all.hpp>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/FiberSwitch.h"
#include "platform/Futex.h"
#include "util/KTFiberMutex.h"
#include "util/KTThreads.h"
#include "util/ORVFiberPool.h"
#include "util/ThreadSlots.h"

namespace {

namespace platform = orv::platform;
namespace context = boost::context;
namespace fibers = boost::fibers;

void switch_boost_context(benchmark::State& state) {
  bool done = false;
  context::fiber fiber([&](context::fiber&& main) {
    while (!done) main = std::move(main).resume();
    return std::move(main);
  });
  for (auto _ : state) fiber = std::move(fiber).resume();
  done = true;
  fiber = std::move(fiber).resume();
}

void switch_platform(benchmark::State& state) {
  platform::Fiber* const main = platform::convertThreadToFiber();
  platform::Fiber* const fiber = platform::createFiber(
      65536,
      [](void* back) {
        for (;;) platform::switchToFiber(static_cast<platform::Fiber*>(back));
      },
      main);
  for (auto _ : state) platform::switchToFiber(fiber);
  platform::deleteFiber(fiber);
  platform::convertFiberToThread();
}

void made_boost_context(benchmark::State& state) {
  context::pooled_fixedsize_stack stacks(262144);
  for (auto _ : state) {
    context::fiber fiber(std::allocator_arg, stacks, [](context::fiber&& main) { return std::move(main); });
    fiber = std::move(fiber).resume();
  }
}

void made_boost_fiber(benchmark::State& state) {
  fibers::pooled_fixedsize_stack stacks(262144);
  for (auto _ : state) fibers::fiber(std::allocator_arg, stacks, [] {}).join();
}

u32 doNothing(void*) {
  return 0;
}

void made_ORVFiber(benchmark::State& state) {
  for (auto _ : state) ORVFiberPtr(new ORVFiber)->run(doNothing, nullptr);
  slotsTearDown();
}

void made_ORVFiberPool(benchmark::State& state) {
  {
    ORVFiberPool pool(4);
    for (auto _ : state) pool.acquire()->run(doNothing, nullptr);
    pool.stop();
  }
  slotsTearDown();
}

void switch_boost_fiber_yield(benchmark::State& state) {
  bool done = false;
  fibers::fiber fiber([&] {
    while (!done) boost::this_fiber::yield();
  });
  for (auto _ : state) boost::this_fiber::yield();
  done = true;
  fiber.join();
}

u32 suspendForEver(void*) {
  for (;;) ORVFiber::current()->suspend();
}

void switch_ORVFiber(benchmark::State& state) {
  {
    const ORVFiberPtr fiber(new ORVFiber);
    fiber->run(suspendForEver, nullptr);
    for (auto _ : state) fiber->wake();
  }
  slotsTearDown();
}

// A fiber that locks and unlocks whenever it is woken.
struct Locker {
  KTFiberMutex mutex;
  std::atomic<u32> rounds{0};
};

u32 lockForEver(void* raw) {
  auto& locker = *static_cast<Locker*>(raw);
  for (;; ORVFiber::current()->suspend()) {
    const KTMutexGuard guard(locker.mutex);
    ++locker.rounds;
    locker.rounds.notify_one();
  }
}

void wait_KTFiberMutex(benchmark::State& state) {
  Locker locker;
  const ORVFiberPtr fiber(new ORVFiber);
  fiber->run(lockForEver, &locker);
  for (auto _ : state) {
    const u32 before = locker.rounds;
    locker.mutex.lock();
    fiber->wake();  // It queues, and this thread is free again.
    locker.mutex.unlock();
    locker.rounds.wait(before);
  }
  while (runningThreadCount() != 0) orv::util::yield();
  slotsTearDown();
}

// A fiber that this thread switches in itself when the mutex comes to it, in place of a new thread.
class BareFiber : public ORVFiber {
 public:
  bool resume() override { return resumed = true; }
  bool resumed = false;
};

void wait_KTFiberMutex_bare(benchmark::State& state) {
  {
    Locker locker;
    const KTPtr<BareFiber> fiber(new BareFiber);
    fiber->run(lockForEver, &locker);
    for (auto _ : state) {
      locker.mutex.lock();
      fiber->wake();
      locker.mutex.unlock();
      if (fiber->resumed) fiber->wake();
    }
  }
  slotsTearDown();
}

void wait_boost_fiber_mutex(benchmark::State& state) {
  fibers::mutex mutex;
  bool done = false;
  fibers::fiber fiber([&] {
    while (!done) {
      mutex.lock();
      mutex.unlock();
      boost::this_fiber::yield();
    }
  });
  for (auto _ : state) {
    mutex.lock();
    boost::this_fiber::yield();  // It queues.
    mutex.unlock();
    boost::this_fiber::yield();  // It gets the lock.
  }
  done = true;
  fiber.join();
}

u32 countUp(void* raw) {
  auto& count = *static_cast<std::atomic<u32>*>(raw);
  ++count;
  count.notify_one();
  return 0;
}

void thread_start(benchmark::State& state) {
  std::atomic<u32> count{0};
  for (auto _ : state) {
    const u32 before = count;
    startThread(countUp, &count, 0);
    count.wait(before);
  }
  while (runningThreadCount() != 0) orv::util::yield();
}

// Two threads that take turns with a mutex and a condition.
template <class Mutex, class Condition>
void handOver(benchmark::State& state) {
  Mutex mutex;
  Condition changed;
  int turn = 0;
  bool done = false;
  const auto pass = [&](int me) {
    std::unique_lock<Mutex> lock(mutex);
    changed.wait(lock, [&] { return turn == me || done; });
    turn = 1 - me;
    changed.notify_one();
    return !done;
  };
  std::thread other([&] {
    while (pass(1)) {
    }
  });
  for (auto _ : state) pass(0);
  {
    const std::lock_guard<Mutex> lock(mutex);
    done = true;
    changed.notify_one();
  }
  other.join();
}

// Each holds the lock until the other stands in line, so that every unlock passes it on.
void handover_KTFiberMutex(benchmark::State& state) {
  KTFiberMutex mutex;
  std::atomic<bool> done{false};
  const auto pass = [&] {
    mutex.lock();
    while (mutex.waitersForTest() == 0 && !done) platform::spinPause();
    mutex.unlock();
  };
  std::thread other([&] {
    while (!done) pass();
  });
  for (auto _ : state) pass();
  done = true;
  other.join();
}

BENCHMARK(made_boost_context)->Name("made_and_ended/boost_context");
BENCHMARK(made_boost_fiber)->Name("made_and_ended/boost_fiber");
BENCHMARK(made_ORVFiber)->Name("made_and_ended/ORVFiber");
BENCHMARK(made_ORVFiberPool)->Name("made_and_ended/ORVFiberPool");
BENCHMARK(switch_boost_context)->Name("switch/boost_context");
BENCHMARK(switch_platform)->Name("switch/platform");
BENCHMARK(switch_boost_fiber_yield)->Name("switch/boost_fiber_yield");
BENCHMARK(switch_ORVFiber)->Name("switch/ORVFiber_wake_suspend");
BENCHMARK(wait_boost_fiber_mutex)->Name("wait/boost_fiber_mutex");
BENCHMARK(wait_KTFiberMutex_bare)->Name("wait/KTFiberMutex_bare");
BENCHMARK(wait_KTFiberMutex)->Name("wait/KTFiberMutex")->UseRealTime();
BENCHMARK(thread_start)->Name("wait/thread_start")->UseRealTime();
BENCHMARK(handOver<std::mutex, std::condition_variable>)->Name("handover/std_mutex")->UseRealTime();
BENCHMARK(handOver<fibers::mutex, fibers::condition_variable>)
    ->Name("handover/boost_fiber_mutex")
    ->UseRealTime();
BENCHMARK(handover_KTFiberMutex)->Name("handover/KTFiberMutex")->UseRealTime();

}  // namespace
