// Metadata beside a plain AMF0 codec and beside the copy of its bytes, in one run: a typical "onMetaData" of
// 20 keys, and one with 2,000 keyframes. Both codecs read and write the same bytes. The plain one is what
// one would write for these five forms alone: it checks every length, points into its input, shares nothing,
// knows no references, keeps a container as a vector of its entries, and knows beforehand how long its output
// will be.
//
// `perValue` is the time of one value, in nanoseconds where benchmarks show "n".

#include <benchmark/benchmark.h>

#include <bit>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "server/KTCommand.h"
#include "support/AmfText.h"

namespace orv::test {
namespace {

// A process that has had a second thread: as in a server, counts are atomic and the allocator is locked.
const bool kThreaded = (std::thread([] {}).join(), true);

KTDataArrayPtr typicalMetadata() {
  const KTDataArrayPtr array(new KTDataArray());
  const struct {
    const char* key;
    double value;
  } kNumbers[] = {
      {"duration", 634.57},
      {"width", 1280},
      {"height", 720},
      {"framerate", 24},
      {"videodatarate", 2000},
      {"videocodecid", 2},
      {"audiodatarate", 128},
      {"audiosamplerate", 44100},
      {"audiosamplesize", 16},
      {"audiocodecid", 2},
      {"filesize", 187654321},
      {"lasttimestamp", 634.5},
      {"lastkeyframetimestamp", 632},
  };
  for (const auto& entry : kNumbers) array->append(entry.key, number(entry.value));
  for (const char* key : {"stereo", "hasVideo", "hasAudio", "canSeekToEnd"})
    array->append(key, boolean(true));
  array->append("creationdate", text("Thu Mar 05 12:34:56 2015"));
  array->append("metadatacreator", text("Some injector of metadata, version 1.2.3"));
  array->append("encoder", text("Lavf58.76.100"));
  return array;
}

constexpr u32 kKeyframes = 2000;

KTDataArrayPtr keyframeMetadata() {
  const KTDataArrayPtr array = typicalMetadata();
  KTData times, positions, keyframes;
  times.setArray(new KTDataArray(), KTData::StrictArray);
  positions.setArray(new KTDataArray(), KTData::StrictArray);
  for (u32 i = 0; i < kKeyframes; ++i) {
    times.asArray()->appendElement(number(i * 2.0));
    positions.asArray()->appendElement(number(i * 500000.0));
  }
  keyframes.setArray(new KTDataArray(), KTData::Object);
  keyframes.asArray()->append("filepositions", positions);
  keyframes.asArray()->append("times", times);
  array->append("keyframes", keyframes);
  return array;
}

// The plain codec. Objects and associative arrays have keys; dense arrays have empty ones.
struct PlainValue {
  u8 marker = KTData::Undefined;
  double number = 0;
  std::string_view text;
  std::vector<std::pair<std::string_view, PlainValue>> entries;
};

class PlainReader {
 public:
  explicit PlainReader(const Bytes& bytes) : at_(bytes.data()), end_(at_ + bytes.size()) {}

  bool read(PlainValue& value) {
    value.marker = static_cast<u8>(bigEndian<1>());
    switch (value.marker) {
      case KTData::Number:
        value.number = std::bit_cast<double>(bigEndian<8>());
        return good_;
      case KTData::Boolean:
        value.number = static_cast<double>(bigEndian<1>());
        return good_;
      case KTData::String:
        value.text = text();
        return good_;
      case KTData::EcmaArray:
        bigEndian<4>();
        return readMembers(value);
      case KTData::Object:
        return readMembers(value);
      case KTData::StrictArray:
        return readElements(value);
      default:
        return false;
    }
  }

 private:
  template <std::size_t kSize>
  u64 bigEndian() {
    if (static_cast<std::size_t>(end_ - at_) < kSize) return good_ = false, 0;
    u64 number = 0;
    for (std::size_t i = 0; i < kSize; ++i) number = number << 8 | *at_++;
    return number;
  }
  std::string_view text() {
    const std::size_t length = bigEndian<2>();
    if (static_cast<std::size_t>(end_ - at_) < length) return good_ = false, std::string_view();
    at_ += length;
    return {reinterpret_cast<const char*>(at_ - length), length};
  }
  bool readMembers(PlainValue& value) {
    for (;;) {
      const std::string_view key = text();
      if (!good_ || at_ == end_) return false;
      if (*at_ == KTData::ObjectEnd) return ++at_, true;
      value.entries.emplace_back(key, PlainValue());
      if (!read(value.entries.back().second)) return false;
    }
  }
  bool readElements(PlainValue& value) {
    const std::size_t count = bigEndian<4>();
    if (static_cast<std::size_t>(end_ - at_) < count) return false;
    value.entries.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      value.entries.emplace_back();
      if (!read(value.entries.back().second)) return false;
    }
    return good_;
  }

  const u8* at_;
  const u8* const end_;
  bool good_ = true;
};

class PlainWriter {
 public:
  explicit PlainWriter(std::size_t capacity)
      : buffer_(new u8[capacity]), at_(buffer_.get()), end_(at_ + capacity) {}

  bool write(const PlainValue& value) {
    bigEndian<1>(value.marker);
    switch (value.marker) {
      case KTData::Number:
        bigEndian<8>(std::bit_cast<u64>(value.number));
        return good_;
      case KTData::Boolean:
        bigEndian<1>(value.number != 0);
        return good_;
      case KTData::String:
        text(value.text);
        return good_;
      case KTData::StrictArray:
        bigEndian<4>(value.entries.size());
        for (const auto& [key, element] : value.entries) write(element);
        return good_;
      case KTData::EcmaArray:
        bigEndian<4>(value.entries.size());
        break;
      default:
        break;
    }
    for (const auto& [key, member] : value.entries) text(key), write(member);
    bigEndian<3>(KTData::ObjectEnd);
    return good_;
  }
  const u8* bytes() const { return buffer_.get(); }

 private:
  template <std::size_t kSize>
  void bigEndian(u64 number) {
    if (static_cast<std::size_t>(end_ - at_) < kSize) return void(good_ = false);
    for (std::size_t i = kSize; i-- > 0; number >>= 8) at_[i] = static_cast<u8>(number);
    at_ += kSize;
  }
  void text(std::string_view text) {
    bigEndian<2>(text.size());
    if (static_cast<std::size_t>(end_ - at_) < text.size()) return void(good_ = false);
    std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
  }

  std::unique_ptr<u8[]> buffer_;
  u8* at_;
  u8* const end_;
  bool good_ = true;
};

// What stands in front of the argument: the name.
constexpr int kNameSize = 1 + 2 + 10;

struct Workload {
  Bytes bytes;
  Bytes rewritten;  // Ours, of what was read: dense arrays have become associative ones.
  i64 values;
};

// A data message as a publisher sends it, its dense arrays as such.
Workload workload(const KTDataArrayPtr& metadata, i64 values) {
  KTCommand command;
  command.setName("onMetaData");
  KTData argument;
  argument.setArray(metadata.get(), KTData::EcmaArray);
  command.addArg(argument);
  command.serializeData();
  const Bytes bytes(command.bytes(), command.bytes() + command.length());
  const KTCommand read(18, bytes.data(), static_cast<u32>(bytes.size()), true);
  KTCSerializer writer;
  writer.writeValue(read.arg(0));
  return {bytes, {writer.bytes(), writer.bytes() + writer.length()}, values};
}

const Workload& load(i64 which) {
  static const Workload kLoads[] = {workload(typicalMetadata(), 20),
                                    workload(keyframeMetadata(), 21 + 2 + 2 * kKeyframes)};
  return kLoads[which];
}

void countValues(benchmark::State& state) {
  state.counters["perValue"] =
      benchmark::Counter(static_cast<double>(load(state.range(0)).values),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void decode(benchmark::State& state) {
  benchmark::DoNotOptimize(kThreaded);
  const Bytes& bytes = load(state.range(0)).bytes;
  for (auto _ : state) {
    const KTCommand command(18, bytes.data(), static_cast<u32>(bytes.size()), false);
    benchmark::DoNotOptimize(command.arg(0).asArray());
  }
  countValues(state);
}

Bytes argumentOf(i64 which) {
  return {load(which).bytes.begin() + kNameSize, load(which).bytes.end()};
}

void decodePlain(benchmark::State& state) {
  const Bytes bytes = argumentOf(state.range(0));
  for (auto _ : state) {
    PlainValue value;
    if (!PlainReader(bytes).read(value)) state.SkipWithError("not decoded");
    benchmark::DoNotOptimize(value.entries.data());
  }
  countValues(state);
}

void encode(benchmark::State& state) {
  const Bytes& bytes = load(state.range(0)).bytes;
  const KTCommand command(18, bytes.data(), static_cast<u32>(bytes.size()), false);
  for (auto _ : state) {
    KTCSerializer writer;
    writer.writeValue(command.arg(0));
    benchmark::DoNotOptimize(writer.bytes());
  }
  countValues(state);
}

// As metadata is rewritten: entry by entry into a new command, and into a message.
void encodeMessage(benchmark::State& state) {
  const Bytes& bytes = load(state.range(0)).bytes;
  const KTCommand command(18, bytes.data(), static_cast<u32>(bytes.size()), false);
  for (auto _ : state) {
    KTCommand rewritten;
    rewritten.setName("onMetaData");
    rewritten.addArg(command.arg(0));
    benchmark::DoNotOptimize(rewritten.toDataMessage()->payload());
  }
  countValues(state);
}

// The same bytes as ours, into a buffer that was made large enough.
void encodePlain(benchmark::State& state) {
  const Bytes& bytes = load(state.range(0)).rewritten;
  PlainValue value;
  PlainReader(bytes).read(value);
  for (auto _ : state) {
    PlainWriter writer(bytes.size());
    if (!writer.write(value)) state.SkipWithError("not encoded");
    benchmark::DoNotOptimize(writer.bytes());
  }
  countValues(state);
}

// The limit: the bytes alone, into a new block.
void copy(benchmark::State& state) {
  const Bytes& bytes = load(state.range(0)).rewritten;
  for (auto _ : state) {
    const std::unique_ptr<u8[]> block(new u8[bytes.size()]);
    std::memcpy(block.get(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(block.get());
  }
  countValues(state);
}

BENCHMARK(decode)->Arg(0)->Arg(1);
BENCHMARK(decodePlain)->Arg(0)->Arg(1);
BENCHMARK(encode)->Arg(0)->Arg(1);
BENCHMARK(encodeMessage)->Arg(0)->Arg(1);
BENCHMARK(encodePlain)->Arg(0)->Arg(1);
BENCHMARK(copy)->Arg(0)->Arg(1);

}  // namespace
}  // namespace orv::test
