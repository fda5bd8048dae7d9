// Strings and counted pointers beside their standard peers: compare the figures of one run, pair by pair.
//
// A std::string of up to 15 characters lives in the object itself and allocates nothing; a KTString is one
// pointer and always does. The pairs of 12 characters show what that costs. std::string doubles its room; a
// KTString grows by 32 characters, which the longest append shows.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <thread>

#include "util/KTObject.h"
#include "util/KTString.h"
#include "util/KTWideString.h"

namespace {

// A process that has had a second thread: as in a server, counts are atomic and the allocator is locked,
// which the standard library leaves out before.
const bool kThreaded = (std::thread([] {}).join(), true);

template <class Text>
void copy(benchmark::State& state) {
  benchmark::DoNotOptimize(kThreaded);
  const std::string source(static_cast<std::size_t>(state.range(0)), 'x');
  const Text text(source.c_str());
  for (auto _ : state) {
    Text made(text);
    benchmark::DoNotOptimize(made);
  }
}
BENCHMARK(copy<KTString>)->Arg(12)->Arg(40)->Arg(1000);
BENCHMARK(copy<std::string>)->Arg(12)->Arg(40)->Arg(1000);

template <class Text>
void assign(benchmark::State& state) {
  const std::string source(static_cast<std::size_t>(state.range(0)), 'x');
  const Text text(source.c_str());
  Text target(text);
  for (auto _ : state) {
    target = text;
    benchmark::DoNotOptimize(target);
  }
}
BENCHMARK(assign<KTString>)->Arg(12)->Arg(1000);
BENCHMARK(assign<std::string>)->Arg(12)->Arg(1000);

// A text of the given length, in pieces of eight characters.
template <class Text>
void append(benchmark::State& state) {
  const auto pieces = state.range(0) / 8;
  for (auto _ : state) {
    Text text;
    for (i64 i = 0; i < pieces; ++i) text += "12345678";
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(append<KTString>)->Arg(24)->Arg(256)->Arg(4096);
BENCHMARK(append<std::string>)->Arg(24)->Arg(256)->Arg(4096);

template <class Text>
void equal(benchmark::State& state) {
  const std::string source(static_cast<std::size_t>(state.range(0)), 'x');
  const Text a(source.c_str()), b(source.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(a == b);
}
BENCHMARK(equal<KTString>)->Arg(12)->Arg(1000);
BENCHMARK(equal<std::string>)->Arg(12)->Arg(1000);

void widenAndNarrow(benchmark::State& state) {
  const KTString path("C:\\media\\streams\\2020\\live\\camera-front.flv");
  for (auto _ : state) benchmark::DoNotOptimize(toNarrow(toWide(path)));
}
BENCHMARK(widenAndNarrow);

struct Counted : KTObject {};

void pointerCopy(benchmark::State& state, auto pointer) {
  for (auto _ : state) {
    auto copied(pointer);
    benchmark::DoNotOptimize(copied);
  }
}
BENCHMARK_CAPTURE(pointerCopy, KTPtr, KTPtr<Counted>(new Counted));
BENCHMARK_CAPTURE(pointerCopy, shared_ptr, std::make_shared<Counted>());

void pointerMakeAndDrop(benchmark::State& state, auto make) {
  for (auto _ : state) benchmark::DoNotOptimize(make());
}
BENCHMARK_CAPTURE(pointerMakeAndDrop, KTPtr, [] { return KTPtr<Counted>(new Counted); });
BENCHMARK_CAPTURE(pointerMakeAndDrop, shared_ptr, [] { return std::make_shared<Counted>(); });

}  // namespace
