// The reading road on real files: open, seek with nothing cached, load beside a plain copy loop, and the
// worst cases of the frame search.
//
// The files are made on first use, in FLV_BENCH_DIR or else in the temporary directory, of 1 GiB and sparse,
// and stay there. They are read from the page cache: figures show the module, not a disk. Payloads are noise,
// so a search meets as many false tags as it would in compressed media.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>

#include "BenchTools.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/DiskHost.h"
#include "support/FlvBuilder.h"
#include "support/HeapWatch.h"
#include "support/MemoryHost.h"
#include "support/Module.h"
#include "support/Random.h"

namespace {

using namespace orv;
using namespace orv::test;
using bench::pageFaults;
using bench::Stopwatch;
namespace fs = std::filesystem;

constexpr i64 kMiB = 1 << 20;
constexpr i64 kGiB = 1 << 30;
constexpr i64 kBlock = 262144;
constexpr u32 kStepMs = 20;

// --- Files -------------------------------------------------------------------------------------------------

struct Film {
  std::string name;  // As a host gives it to the module: without ".flv".
  u32 lastTime;
  i64 size;
  std::string path() const { return name + ".flv"; }
};

u32 constantSize(u32) {
  return 2000;
}
// Key frames' sizes: what the checks of a tag look at lies in none of the few KiB around it.
u32 longSize(u32 tag) {
  return 6000 + tag * 7919 % 16'000;
}
// Scenes of 1 to 5 seconds whose rates differ by up to 40 times.
u32 sceneSize(u32 tag) {
  static constexpr u32 kSizes[] = {4000, 100, 1300, 250, 2400};
  static u32 left = 0, size = 0;
  static Random random(1);
  if (tag == 0) left = 0;
  if (left == 0) left = 50 + random.below(200), size = kSizes[random.below(5)];
  --left;
  return size;
}

Film makeFilm(const char* name, i64 wanted, u32 (*sizeOf)(u32)) {
  const char* const folder = std::getenv("FLV_BENCH_DIR");
  const fs::path base = folder ? fs::path(folder) : fs::temp_directory_path() / "flv_bench";
  fs::create_directories(base);
  Film film{base / name, 0, flv::kFirstTagPosition};
  const bool make = !fs::exists(film.path());
  std::ofstream out;
  if (make) out.open(film.path() + ".new", std::ios::binary);
  const Bytes header = FlvBuilder().bytes();
  out.write(reinterpret_cast<const char*>(header.data()), flv::kFirstTagPosition);
  const Bytes noise = payload(flv::kTypeVideo, 1 << 20, 1);
  for (u32 i = 0; film.size < wanted; ++i) {
    const u32 size = sizeOf(i);
    film.lastTime = i * kStepMs;
    film.size += size + flv::kTagOverhead;
    if (!make) continue;
    const auto from = noise.begin() + (u64{i} * 7919) % (noise.size() - size);
    Bytes data(from, from + size);
    data[0] = 0x22;
    const Bytes tag = tagBytes(flv::kTypeVideo, film.lastTime, data);
    out.write(reinterpret_cast<const char*>(tag.data()), static_cast<std::streamsize>(tag.size()));
  }
  out.close();
  if (make) fs::rename(film.path() + ".new", film.path());
  return film;
}

const Film& constantFilm() {
  static const Film film = makeFilm("constant", kGiB, constantSize);
  return film;
}
const Film& sceneFilm() {
  static const Film film = makeFilm("scenes", kGiB, sceneSize);
  return film;
}

const Film& longTagFilm() {
  static const Film film = makeFilm("long", kGiB / 4, longSize);
  return film;
}

// Tags at both ends and a hole between them.
Film sparseFilm(const char* name, i64 size) {
  Film film = makeFilm(name, kMiB, constantSize);
  const Bytes tags = FlvBuilder().constantRate(kMiB).bytes();
  const int fd = ::open(film.path().c_str(), O_WRONLY);
  if (::pwrite(fd, tags.data() + flv::kFirstTagPosition, tags.size() - flv::kFirstTagPosition, size) < 0)
    std::abort();
  ::close(fd);
  return film;
}

// --- Open --------------------------------------------------------------------------------------------------

void report(benchmark::State& state, const DiskHost& host, i64 callsBefore, i64 bytesBefore) {
  const auto perIteration = [&](i64 count) {
    return benchmark::Counter(static_cast<double>(count), benchmark::Counter::kAvgIterations);
  };
  state.counters["calls"] = perIteration(host.callCount - callsBefore);
  state.counters["KiB"] = perIteration((host.bytesRead - bytesBefore) / 1024);
}

void open(benchmark::State& state, const Film& film) {
  DiskHost host;
  flv::FLVAdaptor adaptor(&host);
  for (auto _ : state) {
    Stream stream(adaptor, film.name);
    if (!stream) state.SkipWithError("can't be opened");
  }
  report(state, host, 0, 0);
}
void open_1MiB(benchmark::State& state) {
  open(state, makeFilm("small", kMiB, constantSize));
}
void open_1GiB(benchmark::State& state) {
  open(state, constantFilm());
}
void open_64GiB_sparse(benchmark::State& state) {
  open(state, sparseFilm("sparse", 64 * kGiB));
}
BENCHMARK(open_1MiB);
BENCHMARK(open_1GiB);
BENCHMARK(open_64GiB_sparse);

void query_unchanged(benchmark::State& state) {
  DiskHost host;
  flv::FLVAdaptor adaptor(&host);
  Stream stream(adaptor, constantFilm().name);
  const i64 calls = host.callCount, bytes = host.bytesRead;
  for (auto _ : state) benchmark::DoNotOptimize(stream.size());
  report(state, host, calls, bytes);
}
BENCHMARK(query_unchanged);

// --- Seek --------------------------------------------------------------------------------------------------

// How many segments the stream knows: each pass of a seek adds one.
i64 knownSegments(DiskHost& host, Stream& stream, i64 size) {
  host.refuseOpens = true;
  i64 known = 0;
  for (i64 at = kBlock - 1; at < size; at += kBlock) known += stream.atPosition(at).has_value();
  host.refuseOpens = false;
  return known;
}

void seek_cold(benchmark::State& state, const Film& film) {
  DiskHost host;
  flv::FLVAdaptor adaptor(&host);
  Random random(7);
  Stopwatch seeking;
  i64 passes = 0, calls = 0, bytes = 0, faults = 0;
  for (auto _ : state) {
    Stream stream(adaptor, film.name);
    const i64 callsBefore = host.callCount, bytesBefore = host.bytesRead, faultsBefore = pageFaults();
    const u32 time = random.below(film.lastTime);
    bool found = false;
    seeking.time([&] { found = stream.atTime(time).has_value(); });
    faults += pageFaults() - faultsBefore;
    if (!found) state.SkipWithError("not found");
    calls += host.callCount - callsBefore;
    bytes += host.bytesRead - bytesBefore;
    passes += knownSegments(host, stream, film.size);
    state.SetIterationTime(seeking.last());
  }
  const auto mean = [&](i64 sum) {
    return benchmark::Counter(static_cast<double>(sum), benchmark::Counter::kAvgIterations);
  };
  state.counters["passes"] = mean(passes);
  state.counters["calls"] = mean(calls);
  state.counters["calls/pass"] = static_cast<double>(calls) / static_cast<double>(std::max<i64>(passes, 1));
  state.counters["KiB"] = mean(bytes / 1024);
  state.counters["faults"] = mean(faults);
}
void seek_cold_constant(benchmark::State& state) {
  seek_cold(state, constantFilm());
}
void seek_cold_scenes(benchmark::State& state) {
  seek_cold(state, sceneFilm());
}
void seek_cold_long_tags(benchmark::State& state) {
  seek_cold(state, longTagFilm());
}
BENCHMARK(seek_cold_long_tags)->Iterations(2000)->UseManualTime();
BENCHMARK(seek_cold_constant)->Iterations(2000)->UseManualTime();
BENCHMARK(seek_cold_scenes)->Iterations(2000)->UseManualTime();

void seek_known(benchmark::State& state) {
  DiskHost host;
  flv::FLVAdaptor adaptor(&host);
  Stream stream(adaptor, sceneFilm().name);
  const u32 time = sceneFilm().lastTime / 2;
  stream.atTime(time);
  const i64 calls = host.callCount, bytes = host.bytesRead;
  for (auto _ : state) benchmark::DoNotOptimize(stream.atTime(time));
  report(state, host, calls, bytes);
}
BENCHMARK(seek_known);

// Every look of a long film is known: 10 GiB, 40,000 segments. The peer is the plain walk through such a
// list.
void seek_known_40000(benchmark::State& state) {
  constexpr u32 kSegments = 40'000;
  MemoryHost host;
  host.put("f.flv", uniformFlv(kSegments * kBlock / 2015, 2000, kStepMs));
  flv::FLVAdaptor adaptor(&host);
  Stream stream(adaptor, "f");
  const std::vector<SegmentBounds> row = stream.walk();
  const std::list<SegmentBounds> plain(row.begin(), row.end());
  const u32 duration = stream.duration();
  host.clearCalls();
  Random random(5);
  double walked = 0;
  constexpr int kWalks = 200;
  const auto from = std::chrono::steady_clock::now();
  for (int i = 0; i < kWalks; ++i) {
    const u32 time = random.below(duration);
    benchmark::DoNotOptimize(
        std::find_if(plain.begin(), plain.end(), [time](auto& segment) { return time < segment.endTime; }));
  }
  walked = std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count() / kWalks;
  const auto begin = std::chrono::steady_clock::now();
  for (auto _ : state) benchmark::DoNotOptimize(stream.atTime(random.below(duration)));
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  state.counters["walk/look"] = walked * static_cast<double>(state.iterations()) / took;
  state.counters["calls"] = static_cast<double>(host.calls.size());
}
BENCHMARK(seek_known_40000);

// A follower looks each time that a recorder has flushed 100 KiB, up to 1 GiB: what an early look and a late
// one take of the processor, and of the host's calls. Nearly all of it is the host's copying of two blocks.
void follow_10000_looks(benchmark::State& state) {
  constexpr i64 kTags = 50, kTag = 2015;
  constexpr u32 kLooks = 10'000, kFrom = 500, kSample = 1000;
  Stopwatch early, late;
  u64 earlyCalls = 0, lateCalls = 0;
  for (auto _ : state) {
    MemoryHost host;
    host.settings["AutoBufferReadSize"] = std::to_string(state.range(0));
    host.put("f.flv", uniformFlv(kTags, kTag - 15, kStepMs));
    flv::FLVAdaptor adaptor(&host);
    Stream stream(adaptor, "f");
    for (u32 look = 1; look <= kLooks; ++look) {
      host.put("f.flv", uniformFlv(kTags * (look + 1), kTag - 15, kStepMs));
      host.clearCalls();
      Stopwatch other;
      const bool isEarly = look > kFrom && look <= kFrom + kSample, isLate = look > kLooks - kSample;
      (isEarly  ? early
       : isLate ? late
                : other)
          .time([&] {
            const i64 size = stream.endPosition();
            if (!stream.atPosition(size - 1) || !stream.atTime(stream.duration()))
              state.SkipWithError("not found");
          });
      (isEarly ? earlyCalls : lateCalls) += isEarly || isLate ? host.calls.size() : 0;
    }
  }
  const double looks = static_cast<double>(state.iterations()) * kSample;
  state.counters["late/early"] = late.total() / early.total();
  state.counters["early_us"] = early.total() / looks * 1e6;
  state.counters["late_us"] = late.total() / looks * 1e6;
  state.counters["early_calls"] = static_cast<double>(earlyCalls) / looks;
  state.counters["late_calls"] = static_cast<double>(lateCalls) / looks;
}
BENCHMARK(follow_10000_looks)
    ->ArgName("block")
    ->Arg(4096)
    ->Arg(294912)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// Key frames of 3 MB: each search for the frame that holds a block start walks back through one.
void segments_under_long_tags(benchmark::State& state) {
  constexpr u32 kTag = 3'000'000;
  MemoryHost host;
  const Bytes noise = payload(flv::kTypeVideo, kTag, 3);
  FlvBuilder film;
  for (u32 i = 0; i < 30; ++i) film.tag(flv::kTypeVideo, i * 40, noise);
  host.put("f.flv", film.bytes());
  flv::FLVAdaptor adaptor(&host);
  Random random(9);
  for (auto _ : state) {
    state.PauseTiming();
    auto stream = std::make_unique<Stream>(adaptor, "f");
    const u32 time = random.below(film.lastTime());
    state.ResumeTiming();
    if (!stream->atTime(time)) state.SkipWithError("not found");
    state.PauseTiming();
    stream.reset();
    host.clearCalls();
    state.ResumeTiming();
  }
}
BENCHMARK(segments_under_long_tags)->Unit(benchmark::kMicrosecond);

// --- Load --------------------------------------------------------------------------------------------------

class CountingHolder final : public ISegmentHolder {
 public:
  i64 messages = 0, bytes = 0;
  void onMessage(unsigned short, const void*, u32 size, u32) override { ++messages, bytes += size; }
  void reserved() override {}
};

double seconds(std::chrono::steady_clock::time_point from) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

// The peer: the file in blocks, each copied once.
double plainCopy(const Film& film) {
  static std::vector<char> block(kBlock), copy(kBlock);
  const auto from = std::chrono::steady_clock::now();
  const int fd = ::open(film.path().c_str(), O_RDONLY);
  for (i64 at = 0;; at += kBlock) {
    const ssize_t got = ::pread(fd, block.data(), block.size(), at);
    if (got <= 0) break;
    std::memcpy(copy.data(), block.data(), static_cast<std::size_t>(got));
    benchmark::ClobberMemory();
  }
  ::close(fd);
  return seconds(from);
}

// Every segment of a 256 MiB film; the peer runs in turn with it. `rate/plain` is the ratio of the two rates.
void load(benchmark::State& state, const char* aggregates) {
  static const Film film = makeFilm("load", kGiB / 4, constantSize);
  DiskHost host;
  host.settings["EnableAggMsgs"] = aggregates;
  flv::FLVAdaptor adaptor(&host);
  Stream stream(adaptor, film.name);
  const auto segments = stream.walk();
  CountingHolder holder;
  double module = 0, plain = 0;
  i64 faults = 0, news = 0;
  const i64 bytesBefore = host.bytesRead;
  for (auto _ : state) {
    plain += plainCopy(film);
    faults -= pageFaults();
    const HeapWatch heap;
    const auto from = std::chrono::steady_clock::now();
    for (SegmentBounds segment : segments) {
      if (!adaptor.loadSegment(stream.handle, &segment, &holder)) state.SkipWithError("load failed");
    }
    const double took = seconds(from);
    faults += pageFaults(), news += static_cast<i64>(heap->allocations);
    module += took;
    state.SetIterationTime(took);
  }
  const double loads = static_cast<double>(segments.size()) * static_cast<double>(state.iterations());
  state.SetBytesProcessed(film.size * static_cast<i64>(state.iterations()));
  state.counters["rate/plain"] = plain / module;
  state.counters["read/delivered"] =
      static_cast<double>(host.bytesRead - bytesBefore) / static_cast<double>(holder.bytes);
  state.counters["messages/load"] = static_cast<double>(holder.messages) / loads;
  state.counters["faults/load"] = static_cast<double>(faults) / loads;
  state.counters["allocs/load"] = static_cast<double>(news) / loads;
  state.counters["descriptors"] = static_cast<double>(host.openDescriptors);
  state.counters["overhead"] = adaptor.getMemoryOverhead(stream.handle);
}
void load_aggregates(benchmark::State& state) {
  load(state, "true");
}
void load_singles(benchmark::State& state) {
  load(state, "false");
}
BENCHMARK(load_aggregates)->UseManualTime()->MinTime(2);
BENCHMARK(load_singles)->UseManualTime()->MinTime(2);

// --- The frame search at its worst -------------------------------------------------------------------------

// Sound tags, `junk` without a tag in it, sound tags; searched from 17 MiB into the junk, all 16 MiB of it.
void search(benchmark::State& state, const FileImage::Fill& junk, i64 before = kMiB) {
  const Bytes head = FlvBuilder().interleaved(9).bytes();
  const FlvBuilder tail = FlvBuilder().interleaved(9, 1000);
  const i64 end = before + 64 * kMiB;
  FileImage image(end, junk);
  image.write(0, head.data(), static_cast<u32>(head.size()));
  // What stands before the last tags must be a size that proves nothing.
  image.append({0, 0, 0, 0});
  image.append({tail.bytes().begin() + flv::kFirstTagPosition, tail.bytes().end()});
  MemoryHost host;
  host.put("f.flv", std::move(image));
  flv::FLVAdaptor adaptor(&host);
  Stream stream(adaptor, "f");
  if (!stream || stream.size() < end) state.SkipWithError("can't be opened");
  u64 calls = 0, bytes = 0;
  for (auto _ : state) {
    host.clearCalls();
    if (stream.atPosition(before + 17 * kMiB)) state.SkipWithError("found a tag in junk");
    calls = host.calls.size(), bytes = static_cast<u64>(host.bytesRead());
  }
  state.counters["calls"] = static_cast<double>(calls);
  state.counters["MiB"] = static_cast<double>(bytes) / kMiB;
}

FileImage::Fill constantly(u8 value) {
  return [=](i64, u8* out, u32 size) { std::fill(out, out + size, value); };
}
FileImage::Fill repeating(const Bytes& pattern) {
  return [=](i64 position, u8* out, u32 size) {
    for (u32 done = 0; done < size;) {
      const auto offset = static_cast<std::size_t>(position + done) % pattern.size();
      const auto part = static_cast<u32>(std::min<std::size_t>(size - done, pattern.size() - offset));
      std::memcpy(out + done, pattern.data() + offset, part);
      done += part;
    }
  };
}
Bytes noise(u32 size) {
  return payload(flv::kTypeVideo, size, 3);
}
// Every 8 bytes a header that fits, with a field before it that fits too; each points up to 16 MiB ahead.
Bytes pointersFarAhead() {
  Bytes out = noise(8 << 20);
  for (std::size_t i = 0; i < out.size(); i += 8) out[i] = 0, out[i + 4] = flv::kTypeVideo;
  return out;
}
// Empty tags in rows of three: each of them needs many looks until it fails.
Bytes rowsOfTags() {
  FlvBuilder film;
  film.tag(flv::kTypeAudio, 1, 0).tag(flv::kTypeAudio, 1, 0).tag(flv::kTypeAudio, 1, 0).raw({1});
  Bytes out;
  while (out.size() < kMiB)
    out.insert(out.end(), film.bytes().begin() + flv::kFirstTagPosition, film.bytes().end());
  return out;
}
// From `start` on, a header in each 15 bytes, of a tag of nearly 16 MiB that fits two more of its kind on
// either side: only below `start` the look back ends.
FileImage::Fill pointersTwoTagsAway(i64 start) {
  constexpr u32 kSize = 16'773'086;  // With its size field, a multiple of 15.
  u8 slot[15];
  flv::writeU32(slot, kSize);
  flv::writeTagHeader(slot + 4, flv::kTypeVideo, kSize - flv::kTagHeaderSize, 5);
  Bytes slots;
  while (slots.size() < kMiB) slots.insert(slots.end(), slot, slot + sizeof slot);
  return [fill = repeating(slots), start](i64 position, u8* out, u32 size) {
    fill(position, out, size);
    if (position < start) std::fill_n(out, std::min<i64>(size, start - position), u8{0});
  };
}

void search_zeros(benchmark::State& state) {
  search(state, constantly(0));
}
void search_noise(benchmark::State& state) {
  search(state, repeating(noise(24 << 20)));
}
void search_noise_behind_4GiB(benchmark::State& state) {
  search(state, repeating(noise(24 << 20)), 4 * kGiB);
}
void search_types(benchmark::State& state) {
  search(state, constantly(static_cast<u8>(state.range(0))), kGiB);
}
void search_pointers_far_ahead(benchmark::State& state) {
  search(state, repeating(pointersFarAhead()), kGiB);
}
void search_pointers_two_tags_away(benchmark::State& state) {
  constexpr i64 kTwoTags = 33'546'180;
  search(state, pointersTwoTagsAway(kGiB + 17 * kMiB - kTwoTags), kGiB);
}
void search_rows_of_tags(benchmark::State& state) {
  search(state, repeating(rowsOfTags()), kGiB);
}
BENCHMARK(search_zeros)->Unit(benchmark::kMillisecond);
BENCHMARK(search_noise)->Unit(benchmark::kMillisecond);
BENCHMARK(search_noise_behind_4GiB)->Unit(benchmark::kMillisecond);
BENCHMARK(search_types)->Arg(8)->Arg(9)->Unit(benchmark::kMillisecond);
BENCHMARK(search_pointers_far_ahead)->Unit(benchmark::kMillisecond);
BENCHMARK(search_pointers_two_tags_away)->Unit(benchmark::kMillisecond);
BENCHMARK(search_rows_of_tags)->Unit(benchmark::kMillisecond);

}  // namespace
