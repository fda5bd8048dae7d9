// Metadata beside librtmp's AMF0 codec, in one run: a typical "onMetaData" of 20 keys, and one with 2,000
// keyframes. Both codecs read and write the same bytes. librtmp points into its input and copies no text.
//
// `perValue` is the time of one value, in nanoseconds where benchmarks show "n".

#include <benchmark/benchmark.h>
#include <librtmp/amf.h>

#include <string>
#include <thread>
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

// What stands in front of the entries, which are what librtmp calls an object: the name, marker and count.
constexpr int kNameSize = 1 + 2 + 10;
constexpr int kArrayHead = 1 + 4;

struct Workload {
  Bytes bytes;
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
  Workload made{{command.bytes(), command.bytes() + command.length()}, values};
  made.bytes[kNameSize + kArrayHead - 1] =
      static_cast<u8>(metadata->size());  // We write 0 there; others don't.
  return made;
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

void decodeLibrtmp(benchmark::State& state) {
  const Bytes& bytes = load(state.range(0)).bytes;
  const char* const start = reinterpret_cast<const char*>(bytes.data()) + kNameSize + kArrayHead;
  const int size = static_cast<int>(bytes.size()) - kNameSize - kArrayHead;
  for (auto _ : state) {
    AMFObject object;
    if (AMF_Decode(&object, start, size, TRUE) < 0) state.SkipWithError("not decoded");
    AMF_Reset(&object);
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

void encodeLibrtmp(benchmark::State& state) {
  const Bytes& bytes = load(state.range(0)).bytes;
  AMFObject object;
  AMF_Decode(&object, reinterpret_cast<const char*>(bytes.data()) + kNameSize + kArrayHead,
             static_cast<int>(bytes.size()) - kNameSize - kArrayHead, TRUE);
  for (auto _ : state) {
    std::vector<char> buffer(2 * bytes.size());
    if (!AMF_EncodeEcmaArray(&object, buffer.data(), buffer.data() + buffer.size())) {
      state.SkipWithError("not encoded");
    }
    benchmark::DoNotOptimize(buffer.data());
  }
  AMF_Reset(&object);
  countValues(state);
}

BENCHMARK(decode)->Arg(0)->Arg(1);
BENCHMARK(decodeLibrtmp)->Arg(0)->Arg(1);
BENCHMARK(encode)->Arg(0)->Arg(1);
BENCHMARK(encodeMessage)->Arg(0)->Arg(1);
BENCHMARK(encodeLibrtmp)->Arg(0)->Arg(1);

}  // namespace
}  // namespace orv::test
