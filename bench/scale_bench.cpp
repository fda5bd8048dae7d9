// What many streams cost, and much of one: thousands that are open, hundreds that record in turn, a million
// tags before a flush, and threads with a stream each.
//
// "bytes" is what the process holds for each stream by the kernel's count, "faults" its page faults. Files
// are made in FLV_BENCH_DIR, or else in the temporary directory, and removed.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <vector>

#include "BenchTools.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/DiskHost.h"
#include "support/FlvBuilder.h"
#include "support/Module.h"

namespace {

using namespace orv;
using namespace orv::test;
using bench::Folder;
using bench::pageFaults;
using bench::Stopwatch;
using bench::threadWaits;

double residentBytes() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return static_cast<double>(resident * sysconf(_SC_PAGESIZE));
}

// --- Open and idle -----------------------------------------------------------------------------------------

void openStreams(benchmark::State& state) {
  const Folder folder;
  const FlvBuilder film = FlvBuilder().interleaved(3000);
  std::ofstream(folder / "film.flv", std::ios::binary)
      .write(reinterpret_cast<const char*>(film.bytes().data()), film.size());
  DiskHost host;
  flv::FLVAdaptor adaptor(&host);
  double bytes = 0, told = 0;
  for (auto _ : state) {
    std::vector<std::unique_ptr<Stream>> streams;
    streams.reserve(static_cast<std::size_t>(state.range(0)));
    const double before = residentBytes();
    Stopwatch opening;
    opening.time([&] {
      for (i64 i = 0; i < state.range(0); ++i)
        streams.push_back(std::make_unique<Stream>(adaptor, folder.film()));
    });
    bytes = (residentBytes() - before) / static_cast<double>(state.range(0));
    told = adaptor.getMemoryOverhead(streams.back()->handle);
    if (host.openDescriptors != 0) state.SkipWithError("descriptors stay open");
    state.SetIterationTime(opening.total());
  }
  state.counters["bytes"] = bytes;
  state.counters["told"] = told;
  state.counters["each"] =
      benchmark::Counter(static_cast<double>(state.range(0)),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// --- Both roads by the size of the read cache --------------------------------------------------------------

class Discard final : public ISegmentHolder {
 public:
  void onMessage(unsigned short, const void*, u32, u32) override {}
  void reserved() override {}
};

// One opening and the load of every segment.
void playThrough(benchmark::State& state) {
  const Folder folder;
  const FlvBuilder film = FlvBuilder().constantRate(64 << 20);
  std::ofstream(folder / "film.flv", std::ios::binary)
      .write(reinterpret_cast<const char*>(film.bytes().data()), film.size());
  DiskHost host;
  host.settings["AutoBufferReadSize"] = std::to_string(state.range(0));
  flv::FLVAdaptor adaptor(&host);
  Discard holder;
  i64 segments = 0;
  for (auto _ : state) {
    Stream stream(adaptor, folder.film());
    SegmentBounds bounds{};
    for (i64 at = 0; adaptor.findSegmentByIndex(stream.handle, at, &bounds); at = bounds.endPosition + 1) {
      adaptor.loadSegment(stream.handle, &bounds, &holder);
      ++segments;
    }
  }
  state.SetBytesProcessed(state.iterations() * film.size());
  state.counters["calls"] = static_cast<double>(host.callCount) / static_cast<double>(segments);
}

// --- Recordings in turn ------------------------------------------------------------------------------------

constexpr u32 kTagsAFlush = 250;

// A tag of each stream in turn, then a flush of each. A stream goes on with its next tag straight after its
// flush, as those of a server do, or, with `late`, once all are flushed. The first interval, which takes the
// memory, isn't counted.
void recordInTurn(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  const Bytes message = payload(flv::kTypeVideo, static_cast<u32>(state.range(1)), 1);
  const bool late = state.range(2) != 0;
  const Folder folder;
  DiskHost host;
  host.settings["AutoBufferReadSize"] = "16384";
  flv::FLVAdaptor adaptor(&host);
  std::vector<std::unique_ptr<Stream>> streams;
  const double before = residentBytes();
  for (std::size_t i = 0; i < count; ++i)
    streams.push_back(std::make_unique<Stream>(adaptor, folder.film(std::to_string(i)), Stream::record));
  i64 staged = 0, flushed = 0;  // Page faults.
  double held = 0;
  const auto interval = [&] {
    const i64 atFirst = pageFaults();
    for (u32 tag = 1; tag < kTagsAFlush; ++tag) {
      for (const auto& stream : streams) stream->stage(flv::kTypeVideo, 40 * tag, message);
    }
    held = residentBytes() - before;
    const i64 between = pageFaults();
    for (const auto& stream : streams) {
      if (!stream->flush()) state.SkipWithError("can't be flushed");
      if (!late) stream->stage(flv::kTypeVideo, 0, message);
    }
    for (const auto& stream : streams) {
      if (late) stream->stage(flv::kTypeVideo, 0, message);
    }
    staged += between - atFirst;
    flushed += pageFaults() - between;
  };
  interval();
  staged = flushed = 0;
  for (auto _ : state) interval();
  const auto flushes = static_cast<double>(state.iterations()) * static_cast<double>(count);
  state.counters["bytes"] = held / static_cast<double>(count);
  state.counters["staged"] = kTagsAFlush * static_cast<double>(message.size() + flv::kTagOverhead);
  state.counters["faults_staging"] = static_cast<double>(staged) / flushes;
  state.counters["faults_flush"] = static_cast<double>(flushed) / flushes;
}

// One recording whose intervals are large, flush behind flush.
void recordLargeIntervals(benchmark::State& state) {
  const auto staged = static_cast<u32>(state.range(0)) << 20;
  const Bytes message = payload(flv::kTypeVideo, 40'000, 1);
  const Folder folder;
  DiskHost host;
  flv::FLVAdaptor adaptor(&host);
  std::optional<Stream> stream;
  const auto interval = [&] {
    for (u32 bytes = 0; bytes < staged; bytes += 40'000) stream->stage(flv::kTypeVideo, 1, message);
    if (!stream->flush()) state.SkipWithError("can't be flushed");
  };
  i64 faults = 0;
  for (u32 i = 0; auto _ : state) {
    if (i++ % 16 == 0) {
      state.PauseTiming();
      stream.reset();
      std::filesystem::remove(folder / "film.flv");
      stream.emplace(adaptor, folder.film(), Stream::record);
      interval();
      interval();
      state.ResumeTiming();
    }
    const i64 before = pageFaults();
    interval();
    faults += pageFaults() - before;
  }
  state.counters["faults"] = static_cast<double>(faults) / static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * staged);
}

// --- A million tags before a flush -------------------------------------------------------------------------

void millionTags(benchmark::State& state) {
  constexpr u32 kTags = 1'000'000, kSize = 20;
  const Bytes message = payload(flv::kTypeVideo, kSize, 1);
  const Folder folder;
  DiskHost host;
  flv::FLVAdaptor adaptor(&host);
  Bytes copy(u64{kTags} * (kSize + flv::kTagOverhead));
  Stopwatch recording, copying;
  for (auto _ : state) {
    std::filesystem::remove(folder / "film.flv");
    Stream stream(adaptor, folder.film(), Stream::record);
    recording.time([&] {
      for (u32 i = 0; i < kTags; ++i) stream.stage(flv::kTypeVideo, i, message);
      if (!stream.flush()) state.SkipWithError("can't be flushed");
    });
    copying.time([&] {
      u8* at = copy.data();
      for (u32 i = 0; i < kTags; ++i, at += kSize + flv::kTagOverhead) {
        flv::writeTagHeader(at, flv::kTypeVideo, kSize, i);
        std::memcpy(at + flv::kTagHeaderSize, message.data(), kSize);
        flv::writeU32(at + flv::kTagHeaderSize + kSize, kSize + flv::kTagHeaderSize);
      }
      std::ofstream(folder / "bare.flv", std::ios::binary)
          .write(reinterpret_cast<const char*>(copy.data()), static_cast<std::streamsize>(copy.size()));
    });
    state.SetIterationTime(recording.last());
  }
  state.counters["ratio"] = recording.total() / copying.total();
  state.counters["ns_a_tag"] = recording.total() / static_cast<double>(state.iterations()) / kTags * 1e9;
}

// --- Threads -----------------------------------------------------------------------------------------------

enum class Road { stage, look, load };

// Each thread works with a stream of its own. "waits" counts how often a thread gave up the processor to wait
// for something, in a thousand steps; "cpu_us" is the processor time of a step. Where no lock is shared
// nobody waits. With `locked` the steps share one, to show what the counters would say.
template <Road road, bool locked>
void threads(benchmark::State& state) {
  static std::unique_ptr<Folder> folder;
  static std::unique_ptr<DiskHost> host;
  static std::unique_ptr<flv::FLVAdaptor> adaptor;
  static std::mutex lock;
  if (state.thread_index() == 0) {
    folder = std::make_unique<Folder>();
    host = std::make_unique<DiskHost>();
    adaptor = std::make_unique<flv::FLVAdaptor>(host.get());
    const FlvBuilder film = FlvBuilder().constantRate(4 << 20);
    std::ofstream(*folder / "film.flv", std::ios::binary)
        .write(reinterpret_cast<const char*>(film.bytes().data()), film.size());
  }
  constexpr bool records = road == Road::stage;
  const Bytes message = payload(flv::kTypeVideo, 400, 1);
  std::unique_ptr<Stream> stream;
  std::vector<SegmentBounds> segments;
  Discard holder;
  const auto step = [&](u32 i) {
    std::unique_lock shared(lock, std::defer_lock);
    if (locked) shared.lock();
    if (records) {
      for (u32 tag = 0; tag < kTagsAFlush; ++tag) stream->stage(flv::kTypeVideo, i + tag, message);
    } else if (road == Road::look) {
      for (const SegmentBounds& segment : segments)
        benchmark::DoNotOptimize(stream->atTime(segment.startTime));
    } else {
      adaptor->loadSegment(stream->handle, &segments[i % segments.size()], &holder);
    }
  };
  Stopwatch working;
  i64 waits = 0;
  for (u32 i = 0; auto _ : state) {
    if (!stream) {  // Behind the barrier that follows the set-up.
      const std::string name = records ? std::to_string(state.thread_index()) : "film";
      stream =
          std::make_unique<Stream>(*adaptor, folder->film(name), records ? Stream::record : Stream::play);
      if (!records) segments = stream->walk();
    }
    const i64 before = threadWaits();
    working.time([&] { step(i); });
    waits += threadWaits() - before;
    if (++i % 8 == 0 && records && !stream->flush()) state.SkipWithError("can't be flushed");
  }
  stream.reset();
  const auto steps = static_cast<double>(state.iterations());  // Of one thread.
  using benchmark::Counter;
  state.counters["cpu_us"] = Counter(working.total() / steps * 1e6, Counter::kAvgThreads);
  state.counters["waits"] = Counter(static_cast<double>(waits) / steps * 1000, Counter::kAvgThreads);
}

BENCHMARK(openStreams)->Arg(1000)->Arg(10'000)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(playThrough)
    ->ArgName("block")
    ->Arg(4096)
    ->Arg(16384)
    ->Arg(65536)
    ->Arg(294912)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(recordInTurn)
    ->ArgNames({"streams", "bytes", "late"})
    ->ArgsProduct({{200}, {400, 2100}, {0, 1}})
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(recordLargeIntervals)->ArgName("MiB")->Arg(1)->Arg(4)->Arg(12)->Unit(benchmark::kMillisecond);
BENCHMARK(millionTags)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(threads<Road::stage, false>)->ThreadRange(1, 16)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(threads<Road::stage, true>)->Threads(16)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(threads<Road::look, false>)->ThreadRange(1, 16)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(threads<Road::load, false>)->ThreadRange(1, 16)->Iterations(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
