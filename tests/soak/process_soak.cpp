// Many flvhost processes on shared files, for as many seconds as the first argument says (default 120): each
// file has a recorder with a copy, which is fed by pieces, killed now and then, and whose file is moved away,
// erased or written anew; and readers that follow, seek, play, list and check it. At the end of each
// recording its copy equals it and all that it took is there; a killed one holds what it held before. Prints
// one line and ends with 0; with the first thing that was wrong and 1 otherwise.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "host/flv/FlvReader.h"
#include "host/flv/WholeTags.h"
#include "support/FlvBuilder.h"
#include "support/Random.h"
#include "support/Threads.h"
#include "tests/host/Program.h"

namespace orv::host::test {
namespace {

namespace fs = std::filesystem;
using orv::test::FlvBuilder;
using orv::test::Random;
using Clock = std::chrono::steady_clock;

constexpr int kFiles = 3, kReadersEach = 2;
constexpr u32 kStepMs = 20, kMostTags = 400;

#define HOLDS(condition) \
  ((condition) ? void() : (std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::_Exit(1)))

u8 typeOf(u32 i) {
  return i % 3 ? flv::kTypeVideo : flv::kTypeAudio;
}

// The i-th tag of every recording.
Bytes dataOf(u32 i) {
  return orv::test::payload(typeOf(i), 40 + i * 37 % 2500, i);
}

struct Counts {
  std::atomic<u64> recordings{0}, kills{0}, moves{0}, reads{0}, tags{0};
};

class Soak {
 public:
  explicit Soak(int seconds) : end_(Clock::now() + std::chrono::seconds(seconds)) {}

  void run() {
    orv::test::onThreads(kFiles * (1 + kReadersEach), [&](int thread) {
      const std::string file = dir_.path(std::to_string(thread % kFiles) + ".flv");
      Random random(static_cast<u32>(thread));
      while (Clock::now() < end_) thread < kFiles ? record(file, random) : read(file, random);
    });
    std::printf("%lu recordings of %lu tags, %lu killed, %lu moved away, %lu runs of readers\n",
                counts_.recordings.load(), counts_.tags.load(), counts_.kills.load(), counts_.moves.load(),
                counts_.reads.load());
  }

 private:
  void record(const std::string& file, Random& random) {
    const std::string copy = file + ".copy", moved = file + ".moved";
    const u32 tags = 50 + random.below(kMostTags - 50);
    FlvBuilder stream;
    for (u32 i = 0; i < tags; ++i) stream.tag(typeOf(i), i * kStepMs, dataOf(i));
    const bool isNew = random.oneIn(2) || !fs::exists(file);
    if (isNew) fs::remove(file), fs::remove(copy);
    Running run("record " + file + " --overwrite --keep-metadata --flush-every 10ms --backup " + copy);
    const u32 moveAt = isNew && random.oneIn(3) ? random.below(tags) : tags,
              killAt = random.oneIn(4) ? random.below(tags) : tags;
    std::size_t fed = 0;
    for (u32 i = 0; i < tags && i < killAt; ++i) {
      const auto end = static_cast<std::size_t>(stream.tags()[i].end());
      run.feed(
          {stream.bytes().begin() + static_cast<long>(fed), stream.bytes().begin() + static_cast<long>(end)});
      fed = end;
      if (i == moveAt && wholeTags(file) > 0) fs::rename(file, moved), ++counts_.moves;
      if (random.oneIn(20)) std::this_thread::sleep_for(std::chrono::milliseconds(random.below(30)));
    }
    ++counts_.recordings;
    if (killAt < tags) {
      kill(run, file, isNew && moveAt >= killAt);
    } else {
      expectAll(run.wait(), tags, file, copy, moved);
    }
    for (const std::string& name : {moved, copy + ".1"}) fs::remove(name);
    if (killAt < tags) fs::remove(copy);
  }

  static u64 wholeTags(const std::string& name) {
    const ReadOnlyFile file(name);
    std::error_code error;
    const auto size = fs::file_size(name, error);
    return file.isOpen() && !error ? followTags(file, flv::kFirstTagPosition, static_cast<i64>(size)).count
                                   : 0;
  }

  // What stood in the file stays, unless the file was to become another one just then.
  void kill(Running& run, const std::string& file, bool stays) {
    const u64 before = stays ? wholeTags(file) : 0;
    run.signal(SIGKILL);
    HOLDS(run.wait().exitCode == -1);
    HOLDS(wholeTags(file) >= before);
    expectTags(TempDir::read(file), 0, false);
    ++counts_.kills;
  }

  void expectAll(const Outcome& outcome, u32 tags, const std::string& file, const std::string& copy,
                 const std::string& moved) {
    if (outcome.exitCode != 0) std::fprintf(stderr, "%s", outcome.err.c_str());
    HOLDS(outcome.exitCode == 0);
    u32 next = 0;
    if (fs::exists(moved)) {
      next = expectPart(moved, fs::exists(copy + ".1") ? copy + ".1" : copy, next);
    }
    if (fs::exists(file)) next = expectPart(file, copy, next);
    HOLDS(next == tags);
    counts_.tags += tags;
  }

  u32 expectPart(const std::string& file, const std::string& copy, u32 next) {
    const Bytes bytes = TempDir::read(file);
    const bool isEqual = bytes == TempDir::read(copy);
    if (!isEqual) std::fprintf(stderr, "%s: %zu bytes, %s\n", file.c_str(), bytes.size(), copy.c_str());
    HOLDS(isEqual);
    HOLDS(flvhost("check " + file).exitCode == 0);
    return expectTags(bytes, next, true);
  }

  // Returns the number behind the last tag. Any of the recordings' tags will do where they needn't follow
  // each other.
  static u32 expectTags(const Bytes& bytes, u32 next, bool inOrder) {
    FlvReader reader([&](const Tag& tag) {
      const u32 number = tag.time / kStepMs;
      if (tag.isData()) return;
      HOLDS(!inOrder || number == next);
      const Bytes wanted = dataOf(number);
      HOLDS(tag.type == typeOf(number) && wanted == Bytes(tag.data, tag.data + tag.size));
      next = number + 1;
    });
    const bool isSound = bytes.empty() || reader.feed(bytes.data(), bytes.size());
    HOLDS(isSound);
    return next;
  }

  void read(const std::string& file, Random& random) {
    const std::string time = std::to_string(random.below(kMostTags * kStepMs)) + "ms";
    const std::string commands[] = {"follow --until-idle 100ms -o - " + file,
                                    "play -o - " + file,
                                    "seek " + file + " " + time,
                                    "info " + file,
                                    "segments " + file,
                                    "check " + file,
                                    "tags " + file};
    const u32 which = random.below(std::size(commands));
    const Outcome outcome = flvhost(commands[which]);
    HOLDS(outcome.exitCode >= 0 && outcome.exitCode <= 2);
    if (which < 2) expectTags(Bytes(outcome.out.begin(), outcome.out.end()), 0, false);
    ++counts_.reads;
  }

  const Clock::time_point end_;
  const TempDir dir_;
  Counts counts_;
};

}  // namespace
}  // namespace orv::host::test

int main(int argc, char** argv) {
  orv::host::test::Soak(argc > 1 ? std::atoi(argv[1]) : 120).run();
}
