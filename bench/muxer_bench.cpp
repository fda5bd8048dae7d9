// A recording beside libavformat's muxer: the same tags into two files of one folder, in turns.
//
// Every 250 tags each side brings to its file what it holds: a flush, with all that belongs to it, on this
// side, avio_flush on the other. "rate/muxer" is the quotient of the two rates by processor time: above 1 the
// recorder is the cheaper one. `block` is "AutoBufferReadSize". Files are made in FLV_BENCH_DIR, or else in
// the temporary directory, and removed.

#include <benchmark/benchmark.h>
extern "C" {
#include <libavformat/avformat.h>
}

#include <fstream>
#include <iterator>
#include <optional>

#include "BenchTools.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/DiskHost.h"
#include "support/FlvBuilder.h"
#include "support/Module.h"

namespace {

using namespace orv;
using namespace orv::test;
using bench::Folder;
using bench::Stopwatch;

constexpr u32 kTags = 250;
constexpr u8 kKeyFrameOfH263 = 0x12;

class Muxer {
 public:
  explicit Muxer(const std::string& path) {
    check(avformat_alloc_output_context2(&context_, nullptr, "flv", path.c_str()));
    AVStream* const video = avformat_new_stream(context_, nullptr);
    video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    video->codecpar->codec_id = AV_CODEC_ID_FLV1;
    video->codecpar->width = 320;
    video->codecpar->height = 240;
    video->time_base = {1, 1000};
    check(avio_open(&context_->pb, path.c_str(), AVIO_FLAG_WRITE));
    check(avformat_write_header(context_, nullptr));
    packet_ = av_packet_alloc();
  }
  ~Muxer() {
    av_packet_free(&packet_);
    avio_closep(&context_->pb);
    avformat_free_context(context_);
  }
  Muxer(const Muxer&) = delete;
  Muxer& operator=(const Muxer&) = delete;

  // The first byte of the payload is the muxer's to write.
  void write(u32 time, Bytes& payload) {
    packet_->data = payload.data() + 1;
    packet_->size = static_cast<int>(payload.size()) - 1;
    packet_->pts = packet_->dts = time;
    packet_->flags = AV_PKT_FLAG_KEY;
    check(av_write_frame(context_, packet_));
  }
  void flush() { avio_flush(context_->pb); }

 private:
  static void check(int result) {
    if (result < 0) std::abort();
  }
  AVFormatContext* context_ = nullptr;
  AVPacket* packet_ = nullptr;
};

// The tags of the last interval.
std::string lastTags(const std::string& path, std::size_t size) {
  std::ifstream file(path, std::ios::binary);
  const std::string all(std::istreambuf_iterator<char>(file), {});
  return all.substr(all.size() - std::min(all.size(), size));
}

void record(benchmark::State& state) {
  const auto size = static_cast<u32>(state.range(0));
  std::vector<Bytes> payloads(kTags, payload(flv::kTypeVideo, size, 1));
  for (Bytes& bytes : payloads) bytes[0] = kKeyFrameOfH263;
  const Folder folder;
  DiskHost host;
  host.settings["AutoBufferReadSize"] = std::to_string(state.range(1));
  flv::FLVAdaptor adaptor(&host);
  Stopwatch recording, muxing;
  std::optional<Stream> stream;
  std::optional<Muxer> muxer;
  u32 time = 0;
  for (u32 interval = 0; auto _ : state) {
    if (interval++ % 64 == 0) {
      stream.reset();
      std::filesystem::remove(folder / "film.flv");
      stream.emplace(adaptor, folder.film(), Stream::record);
      muxer.emplace(folder / "muxed.flv");
    }
    const u32 from = time;
    recording.time([&] {
      for (u32 i = 0; i < kTags; ++i) stream->stage(flv::kTypeVideo, from + i, payloads[i]);
      if (!stream->flush()) state.SkipWithError("can't be flushed");
    });
    muxing.time([&] {
      for (u32 i = 0; i < kTags; ++i) muxer->write(from + i, payloads[i]);
      muxer->flush();
    });
    time += kTags;
    state.SetIterationTime(recording.last());
  }
  const std::size_t bytes = kTags * (size + flv::kTagOverhead);
  if (lastTags(folder / "film.flv", bytes) != lastTags(folder / "muxed.flv", bytes))
    state.SkipWithError("the two wrote different tags");
  const auto intervals = static_cast<double>(state.iterations());
  state.counters["rate/muxer"] = muxing.total() / recording.total();
  state.counters["muxer_us"] = muxing.total() / intervals * 1e6;
  state.SetBytesProcessed(state.iterations() * static_cast<i64>(bytes));
}

BENCHMARK(record)
    ->ArgNames({"bytes", "block"})
    ->ArgsProduct({{400, 2048, 4096}, {16384, 294912}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
