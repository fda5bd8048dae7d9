// An aggregate of 64 KiB opened into its entries, and split, beside one copy of its payload. What is
// allocated grows with the entries and never with the bytes.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include "server/compositemessage.h"
#include "support/FlvBuilder.h"
#include "support/HeapWatch.h"

namespace orv {
namespace {

KTMemoryPtr aggregateOf(u32 tagSize) {
  const test::FlvBuilder film = test::FlvBuilder().constantRate(65536, tagSize);
  const u32 size = static_cast<u32>(film.size()) - flv::kFirstTagPosition;
  KTMemoryPtr block(size, nullptr);
  std::copy_n(film.bytes().begin() + flv::kFirstTagPosition, size, block->data);
  return block;
}

void open(benchmark::State& state) {
  const KTMemoryPtr block = aggregateOf(static_cast<u32>(state.range(0)));
  for (auto _ : state) {
    const CompositeMessagePtr composite(new CompositeMessage(block, block->capacity));
    benchmark::DoNotOptimize(composite->entryCount());
  }
  const test::HeapWatch heap;
  const CompositeMessagePtr composite(new CompositeMessage(block, block->capacity));
  state.counters["payload"] = block->capacity;
  state.counters["entries"] = composite->entryCount();
  state.counters["allocations"] = static_cast<double>(heap->allocations);
  state.counters["allocatedBytes"] = static_cast<double>(heap->live);
}
BENCHMARK(open)->Arg(400)->Arg(2000)->Arg(8000);

void split(benchmark::State& state) {
  const KTMemoryPtr block = aggregateOf(static_cast<u32>(state.range(0)));
  const CompositeMessagePtr composite(new CompositeMessage(block, block->capacity));
  CompositeMessagePtr first, second;
  for (auto _ : state) composite->splitAtIndex(composite->entryCount() / 2, first, second);
}
BENCHMARK(split)->Arg(400)->Arg(2000)->Arg(8000);

void copyPayload(benchmark::State& state) {
  const KTMemoryPtr block = aggregateOf(static_cast<u32>(state.range(0)));
  std::vector<u8> copy(block->capacity);
  for (auto _ : state) {
    std::copy_n(block->data, block->capacity, copy.data());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(copyPayload)->Arg(2000);

}  // namespace
}  // namespace orv
