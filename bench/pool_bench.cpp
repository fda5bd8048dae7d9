// Acquire and release of a block of a pool, beside new and delete of the same object.
//
// Figures are processor time for one block taken and released. The rows named heap show the system's
// allocator, or any other that is preloaded:
//     LD_PRELOAD=libmimalloc.so.2 build/release/bench/pool_bench

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "util/KTPool.h"

namespace {

constexpr KTPoolSettings kSettings{.threadSlot = 0,
                                   .maxEntrySize = 1 << 20,
                                   .maxEntries = 2048,
                                   .maxBytes = 256 << 20,
                                   .lowShare = 64,
                                   .syncInterval = 10000};

using Pool = KTPool<KTMemory>;
using Blocks = std::vector<std::optional<KTMemoryPtr>>;

double threadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// What it costs to ask the clock: a microsecond, which would stand out beside a few hundred blocks.
double clockSeconds() {
  constexpr int kTimes = 10'000;
  const double start = threadSeconds();
  for (int i = 1; i < kTimes; ++i) threadSeconds();
  return (threadSeconds() - start) / kTimes;
}

// The calling thread's processor time for `work`.
template <class Work>
double timed(Work work) {
  static const double clock = clockSeconds();
  const double start = threadSeconds();
  work();
  return threadSeconds() - start - clock;
}

void takeAndRelease(u32 size, Pool* pool) {
  const KTMemoryPtr block(size, pool);
  benchmark::DoNotOptimize(block.get());
}

std::unique_ptr<Pool> poolOrHeap(bool pooled) {
  return pooled ? std::make_unique<Pool>(kSettings) : nullptr;
}

// Time for a single block, where an iteration works on `blocks` of them.
void showPerBlock(benchmark::State& state, double blocks) {
  using benchmark::Counter;
  state.counters["per_block"] = Counter(blocks, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

// The same block comes back each time.
template <bool pooled>
void oneBlock(benchmark::State& state) {
  const auto pool = poolOrHeap(pooled);
  const auto size = static_cast<u32>(state.range(0));
  for (auto _ : state) takeAndRelease(size, pool.get());
  showPerBlock(state, 1);
}

// Two threads at once, each with its own blocks of one pool.
template <bool pooled>
void oneBlockOnTwoThreads(benchmark::State& state) {
  constexpr int kRound = 10'000;
  const auto pool = poolOrHeap(pooled);
  const auto size = static_cast<u32>(state.range(0));
  std::barrier<> meet(2);
  std::atomic<bool> done{false};
  double seconds[2] = {};
  const auto round = [&](int me) {
    meet.arrive_and_wait();
    seconds[me] = timed([&] {
      for (int i = 0; i < kRound; ++i) takeAndRelease(size, pool.get());
    });
    meet.arrive_and_wait();
  };
  std::thread other([&] {
    for (;;) {
      meet.arrive_and_wait();
      if (done) break;
      round(1);
    }
    slotsTearDown();
  });
  for (auto _ : state) {
    meet.arrive_and_wait();
    round(0);
    state.SetIterationTime(seconds[0] + seconds[1]);
  }
  showPerBlock(state, 2 * kRound);
  done = true;
  meet.arrive_and_wait();
  other.join();
}

// 1,024 blocks are taken, and then released in a random order.
template <bool pooled>
void manyLive(benchmark::State& state) {
  const auto pool = poolOrHeap(pooled);
  const auto size = static_cast<u32>(state.range(0));
  Blocks live(1024);
  std::vector<u32> order(live.size());
  for (u32 i = 0; i < order.size(); ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::minstd_rand(1));
  for (auto _ : state) {
    state.SetIterationTime(timed([&] {
      for (auto& block : live) block.emplace(size, pool.get());
      for (const u32 place : order) live[place].reset();
    }));
  }
  showPerBlock(state, static_cast<double>(live.size()));
}

// One thread takes 256 blocks, then another one releases them.
template <bool pooled>
void releasedByOther(benchmark::State& state) {
  const auto pool = poolOrHeap(pooled);
  const auto size = static_cast<u32>(state.range(0));
  Blocks batch(256);
  std::barrier<> meet(2);
  std::atomic<bool> done{false};
  double releasing = 0;
  std::thread other([&] {
    for (;;) {
      meet.arrive_and_wait();
      if (done) break;
      releasing = timed([&] {
        for (auto& block : batch) block.reset();
      });
      meet.arrive_and_wait();
    }
    slotsTearDown();
  });
  for (auto _ : state) {
    const double taking = timed([&] {
      for (auto& block : batch) block.emplace(size, pool.get());
    });
    meet.arrive_and_wait();
    meet.arrive_and_wait();
    state.SetIterationTime(taking + releasing);
  }
  showPerBlock(state, static_cast<double>(batch.size()));
  done = true;
  meet.arrive_and_wait();
  other.join();
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : {256, 4096, 65536}) benchmark->Arg(size);
}

void sizesByHand(benchmark::internal::Benchmark* benchmark) {
  sizes(benchmark);
  benchmark->UseManualTime();
}

void secondThread(benchmark::State& state) {
  for (auto _ : state) std::thread([] {}).join();
}

// The C library spares atomic instructions until the process starts its second thread; a server has many.
BENCHMARK(secondThread)->Iterations(1);
BENCHMARK(oneBlock<false>)->Name("heap/one_block")->Apply(sizes);
BENCHMARK(oneBlock<true>)->Name("pool/one_block")->Apply(sizes);
BENCHMARK(oneBlockOnTwoThreads<false>)->Name("heap/two_threads")->Apply(sizesByHand);
BENCHMARK(oneBlockOnTwoThreads<true>)->Name("pool/two_threads")->Apply(sizesByHand);
BENCHMARK(manyLive<false>)->Name("heap/1024_live")->Apply(sizesByHand);
BENCHMARK(manyLive<true>)->Name("pool/1024_live")->Apply(sizesByHand);
BENCHMARK(releasedByOther<false>)->Name("heap/released_by_other")->Apply(sizesByHand);
BENCHMARK(releasedByOther<true>)->Name("pool/released_by_other")->Apply(sizesByHand);

}  // namespace
