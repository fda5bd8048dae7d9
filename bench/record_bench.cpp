// Recording: staging beside a bare copy of the same bytes, and a flush beside the least code that appends
// them to a file of the same file system.
//
// Both sides of a pair take turns in one loop; "ratio" is their quotient. The time shown is that of a whole
// interval between two flushes, or of staging what one flush takes. Files are made in FLV_BENCH_DIR, or else
// in the temporary directory, and removed.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "BenchTools.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/DiskHost.h"
#include "support/FlvBuilder.h"
#include "support/HeapWatch.h"
#include "support/Module.h"

namespace {

using namespace orv;
using namespace orv::test;
using bench::Folder;
using bench::Stopwatch;
namespace fs = std::filesystem;

constexpr i64 kMiB = 1 << 20;
constexpr u32 kMetadataSize = 400;

// "onMetaData" with a duration, and a text that brings it to its size.
Bytes metadata() {
  constexpr char kHead[] =
      "\2\0\xAonMetaData\x3\0\x8"
      "duration\0\0\0\0\0\0\0\0\0\0\x3pad\2";
  const std::string head(kHead, sizeof kHead - 1);
  const std::string end("\0\0\x9", 3);
  const std::size_t text = kMetadataSize - head.size() - 2 - end.size();
  const std::string all =
      head + static_cast<char>(text >> 8) + static_cast<char>(text) + std::string(text, ' ') + end;
  return Bytes(all.begin(), all.end());
}

// --- Staging -----------------------------------------------------------------------------------------------

// `payloads`: 0, one for each message, as a server has them; 1, the same one again and again, which the copy
// finds in the nearest cache: what is left then is the lock and the calls.
void stage(benchmark::State& state) {
  const auto messageSize = static_cast<u32>(state.range(0));
  const u32 count = static_cast<u32>(kMiB) / messageSize;
  const std::vector<Bytes> payloads(count, payload(flv::kTypeVideo, messageSize, 1));
  const std::size_t step = state.range(1) ? 0 : 1;
  const auto message = [&](u32 i) -> const Bytes& { return payloads[i * step]; };
  const Folder folder;
  DiskHost host;
  flv::FLVAdaptor adaptor(&host);
  Bytes copy(count * (messageSize + flv::kTagOverhead));
  Stopwatch recording, copying;
  i64 calls = 0, allocated = 0;
  std::optional<Stream> stream;
  const auto newFile = [&] {
    stream.reset();
    fs::remove(folder / "film.flv");
    stream.emplace(adaptor, folder.film(), Stream::record);
    for (u32 i = 0; i < count; ++i) stream->stage(flv::kTypeVideo, 1, message(0));
    stream->flush();
  };
  newFile();
  for (u32 interval = 1; auto _ : state) {
    if (interval++ % 64 == 0) newFile();
    stream->stage(flv::kTypeVideo, 1, message(0));  // Opens the file.
    const i64 callsBefore = host.callCount;
    const HeapWatch heap;
    recording.time([&] {
      for (u32 i = 0; i < count; ++i) stream->stage(flv::kTypeVideo, 1 + i, message(i));
    });
    calls += host.callCount - callsBefore;
    allocated += static_cast<i64>(heap->allocations);
    stream->flush();
    copying.time([&] {
      u8* at = copy.data();
      for (u32 i = 0; i < count; ++i) {
        flv::writeTagHeader(at, flv::kTypeVideo, messageSize, 1 + i);
        std::memcpy(at + flv::kTagHeaderSize, message(i).data(), messageSize);
        flv::writeU32(at + flv::kTagHeaderSize + messageSize, messageSize + flv::kTagHeaderSize);
        at += messageSize + flv::kTagOverhead;
      }
      benchmark::DoNotOptimize(copy.data());
      benchmark::ClobberMemory();
    });
    state.SetIterationTime(recording.last());
  }
  const double messages = static_cast<double>(state.iterations()) * count;
  state.counters["ratio"] = recording.total() / copying.total();
  state.counters["record_ns"] = recording.total() / messages * 1e9;
  state.counters["copy_ns"] = copying.total() / messages * 1e9;
  state.counters["calls"] = static_cast<double>(calls) / messages;
  state.counters["allocations"] = static_cast<double>(allocated) / messages;
}

// --- Flushing ----------------------------------------------------------------------------------------------

constexpr u32 kTags = 250;

// A file that begins and ends with sound tags and is `size` bytes long, with a hole in between if it is
// large.
void makeFilm(const std::string& path, i64 size) {
  fs::remove(path);
  FlvBuilder head;
  head.tag(flv::kTypeDataAmf0, 0, metadata()).constantRate(kMiB / 2);
  const FlvBuilder tail = FlvBuilder().constantRate(kMiB / 2);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
  const auto put = [fd](const Bytes& bytes, std::size_t from, i64 position) {
    if (::pwrite(fd, &bytes[from], bytes.size() - from, position) < 0) std::abort();
  };
  put(head.bytes(), 0, 0);
  put(tail.bytes(), flv::kFirstTagPosition, std::max(size - kMiB / 2, head.size()));
  ::close(fd);
}

// The least that brings the same bytes to a file that stays open.
class BareAppend {
 public:
  explicit BareAppend(const std::string& path)
      : fd_(::open(path.c_str(), O_RDWR)), end_(::lseek(fd_, 0, SEEK_END)) {}
  ~BareAppend() { ::close(fd_); }
  BareAppend(const BareAppend&) = delete;
  BareAppend& operator=(const BareAppend&) = delete;
  void append(const Bytes& tags, const Bytes& inPlace) {
    const u8 flags = 13;
    good_ &= ::pwrite(fd_, tags.data(), tags.size(), end_) == static_cast<ssize_t>(tags.size());
    good_ &= ::pwrite(fd_, &flags, 1, flv::kTypeFlagsPosition) == 1;
    good_ &= ::pwrite(fd_, inPlace.data(), inPlace.size(), flv::kFirstTagPosition + flv::kTagHeaderSize) > 0;
    end_ += static_cast<i64>(tags.size());
    if (!good_) std::abort();
  }

 private:
  int fd_;
  i64 end_;
  bool good_ = true;
};

void flush(benchmark::State& state) {
  const i64 fileSize = state.range(0) * kMiB;
  const auto tags = static_cast<u32>(state.range(1)), tagData = static_cast<u32>(state.range(2));
  const Bytes message = payload(flv::kTypeVideo, tagData, 1), inPlace = metadata();
  const Bytes staged(tags * (tagData + flv::kTagOverhead), 0x55);
  const Folder folder;
  DiskHost host;
  host.settings["AutoBufferReadSize"] = std::to_string(state.range(3));
  flv::FLVAdaptor adaptor(&host);
  Stopwatch opening, staging, flushing, appending;
  i64 writes = 0, calls = 0;
  std::optional<Stream> stream;
  std::optional<BareAppend> bare;
  for (u32 interval = 0; auto _ : state) {
    if (interval++ % 64 == 0) {
      stream.reset();
      bare.reset();
      makeFilm(folder / "film.flv", fileSize);
      makeFilm(folder / "bare.flv", fileSize);
      stream.emplace(adaptor, folder.film());
      bare.emplace(folder / "bare.flv");
    }
    const i64 callsBefore = host.callCount;
    // H.263 is taken; H.264 is refused, but opens the file all the same.
    opening.time([&] { stream->stage(flv::kTypeVideo, 1, {0x17}); });
    staging.time([&] {
      for (u32 i = 0; i < tags; ++i) stream->stage(flv::kTypeVideo, 40 * i, message);
    });
    const i64 writesBefore = host.writeCount;
    flushing.time([&] {
      if (!stream->flush()) state.SkipWithError("can't be flushed");
    });
    writes += host.writeCount - writesBefore;
    calls += host.callCount - callsBefore;
    appending.time([&] { bare->append(staged, inPlace); });
    state.SetIterationTime(opening.last() + staging.last() + flushing.last());
  }
  const auto flushes = static_cast<double>(state.iterations());
  state.counters["ratio"] = flushing.total() / appending.total();
  state.counters["bare_us"] = appending.total() / flushes * 1e6;
  state.counters["open_us"] = opening.total() / flushes * 1e6;
  state.counters["stage_us"] = staging.total() / flushes * 1e6;
  state.counters["flush_us"] = flushing.total() / flushes * 1e6;
  state.counters["writes"] = static_cast<double>(writes) / flushes;
  state.counters["calls"] = static_cast<double>(calls) / flushes;
}

BENCHMARK(stage)->ArgNames({"bytes", "payloads"})->ArgsProduct({{400, 2048}, {0, 1}})->UseManualTime();
// The whole interval. With no tag: the fixed cost, that of the scans and of the metadata. `block` is
// "AutoBufferReadSize"; the last one is its default.
BENCHMARK(flush)
    ->ArgNames({"MiB", "tags", "bytes", "block"})
    ->ArgsProduct({{1, 10240}, {0}, {2100}, {4096, 16384, 65536, 294912}})
    ->ArgsProduct({{1, 10240}, {kTags}, {400, 2100, 4096}, {16384, 294912}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
