// Acquire and release of a block of a pool, beside new and delete of the same object.
//
// Figures are processor time for one block taken and released. The rows named heap show the same object from
// the system's allocator, or from any other that is preloaded:
//     LD_PRELOAD=libmimalloc.so.2 build/release/bench/pool_bench
// The rows named tcmalloc show the same object and its bytes from that allocator, counted once and never
// released; those named tcmalloc_bare its bytes alone, with no object and no count around them.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
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

struct TcMalloc {
  void* library = dlopen("libtcmalloc_minimal.so.4", RTLD_NOW | RTLD_LOCAL);
  void* (*take)(size_t) = reinterpret_cast<void* (*)(size_t)>(library ? dlsym(library, "tc_malloc")
                                                                      : nullptr);
  void (*give)(void*) = reinterpret_cast<void (*)(void*)>(library ? dlsym(library, "tc_free") : nullptr);
};

// Null, with the row marked, where it isn't installed.
const TcMalloc* tcMalloc(benchmark::State& state) {
  static const TcMalloc loaded;
  if (loaded.take && loaded.give) return &loaded;
  state.SkipWithError("libtcmalloc_minimal.so.4 is not installed");
  return nullptr;
}

void* takeBare(const TcMalloc& heap, size_t size) {
  return heap.take(size);
}
void giveBare(const TcMalloc& heap, void* bytes) {
  heap.give(bytes);
}

void* takeCounted(const TcMalloc& heap, size_t size) {
  auto* const block = new (heap.take(sizeof(KTMemory))) KTMemory;
  block->data = static_cast<u8*>(heap.take(size));
  block->capacity = static_cast<u32>(size);
  block->addRef();
  return block;
}
void giveCounted(const TcMalloc& heap, void* counted) {
  auto* const block = static_cast<KTMemory*>(counted);
  heap.give(block->data);
  block->~KTMemory();
  heap.give(block);
}

template <auto take, auto give>
void oneBlockOfTcMalloc(benchmark::State& state) {
  const TcMalloc* const heap = tcMalloc(state);
  if (!heap) return;
  for (auto _ : state) {
    void* const block = take(*heap, static_cast<size_t>(state.range(0)));
    benchmark::DoNotOptimize(block);
    give(*heap, block);
  }
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
template <class Take, class Release>
void manyLive(benchmark::State& state, Take take, Release release) {
  std::vector<u32> order(1024);
  for (u32 i = 0; i < order.size(); ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::minstd_rand(1));
  for (auto _ : state) {
    state.SetIterationTime(timed([&] {
      for (u32 i = 0; i < order.size(); ++i) take(i);
      for (const u32 place : order) release(place);
    }));
  }
  showPerBlock(state, static_cast<double>(order.size()));
}

template <bool pooled>
void manyLiveBlocks(benchmark::State& state) {
  const auto pool = poolOrHeap(pooled);
  const auto size = static_cast<u32>(state.range(0));
  Blocks live(1024);
  manyLive(
      state, [&](u32 i) { live[i].emplace(size, pool.get()); }, [&](u32 i) { live[i].reset(); });
}

template <auto take, auto give>
void manyLiveOfTcMalloc(benchmark::State& state) {
  const TcMalloc* const heap = tcMalloc(state);
  if (!heap) return;
  const auto size = static_cast<size_t>(state.range(0));
  std::vector<void*> live(1024);
  manyLive(
      state, [&](u32 i) { live[i] = take(*heap, size); }, [&](u32 i) { give(*heap, live[i]); });
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
BENCHMARK(oneBlockOfTcMalloc<takeBare, giveBare>)->Name("tcmalloc_bare/one_block")->Apply(sizes);
BENCHMARK(oneBlockOfTcMalloc<takeCounted, giveCounted>)->Name("tcmalloc/one_block")->Apply(sizes);
BENCHMARK(oneBlock<false>)->Name("heap/one_block")->Apply(sizes);
BENCHMARK(oneBlock<true>)->Name("pool/one_block")->Apply(sizes);
BENCHMARK(oneBlockOnTwoThreads<false>)->Name("heap/two_threads")->Apply(sizesByHand);
BENCHMARK(oneBlockOnTwoThreads<true>)->Name("pool/two_threads")->Apply(sizesByHand);
BENCHMARK(manyLiveOfTcMalloc<takeBare, giveBare>)->Name("tcmalloc_bare/1024_live")->Apply(sizesByHand);
BENCHMARK(manyLiveOfTcMalloc<takeCounted, giveCounted>)->Name("tcmalloc/1024_live")->Apply(sizesByHand);
BENCHMARK(manyLiveBlocks<false>)->Name("heap/1024_live")->Apply(sizesByHand);
BENCHMARK(manyLiveBlocks<true>)->Name("pool/1024_live")->Apply(sizesByHand);
BENCHMARK(releasedByOther<false>)->Name("heap/released_by_other")->Apply(sizesByHand);
BENCHMARK(releasedByOther<true>)->Name("pool/released_by_other")->Apply(sizesByHand);

}  // namespace
