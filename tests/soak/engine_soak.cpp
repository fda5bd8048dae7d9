// The engine on shared files under everything at once, for as many seconds as the first argument says
// (default 120): each file has a recorder, which also erases, renames and replaces it, attaches mirrors late
// and opens it anew, and readers that follow and seek. At the end each mirror equals its file, all promised
// tags are there, and nothing is left. Prints one line and ends with 0; with the first thing that was wrong
// and 1 otherwise.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "modules/streams/flv/FLVAdaptor.h"
#include "support/DiskHost.h"
#include "support/FlvBuilder.h"
#include "support/MirrorConn.h"
#include "support/Module.h"
#include "support/Random.h"
#include "support/Threads.h"

namespace orv::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kFiles = 3, kReadersEach = 2;
constexpr u32 kMostTags = 1500, kStepMs = 20;

#define HOLDS(condition) \
  ((condition) ? void() : (std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::_Exit(1)))

// Readers print short reads, of files that were replaced under them, on standard output.
const int kStdout = dup(STDOUT_FILENO);
const bool kQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

// The i-th tag of a life of a file; it carries both numbers.
Message tagOf(u32 life, u32 i) {
  Bytes data = payload(9, 40 + i * 37 % 2500, i);
  flv::writeU32(&data[1], life);
  flv::writeU32(&data[5], i);
  return {9, i * kStepMs, std::move(data)};
}

std::string native(std::string name) {
  std::replace(name.begin(), name.end(), '\\', '/');
  return name;
}

struct SharedFile {
  std::string name;  // Without ".flv"; the module wants a backslash in front of a file's own name.
  // Grows at each erasure, renaming and replacement; odd while one is under way.
  std::atomic<u32> life{0};
  std::atomic<u32> promised{0};  // Tags of this life that flushes have completed.

  std::string path() const { return native(name) + ".flv"; }
};

struct Counts {
  std::atomic<u64> flushes{0}, lives{0}, delivered{0}, seeks{0};
};

class Soak {
 public:
  explicit Soak(double seconds)
      : end_(Clock::now() +
             std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))),
        folder_(fs::temp_directory_path() / ("flv_soak_" + std::to_string(getpid()))) {
    fs::create_directories(folder_);
    for (int i = 0; i < kFiles; ++i) files_[i].name = folder_.string() + "\\" + std::to_string(i);
    host_.settings["EnableAggMsgs"] = "false";
  }
  ~Soak() { fs::remove_all(folder_); }

  void run() {
    flv::FLVAdaptor adaptor(&host_);
    onThreads(kFiles * (1 + kReadersEach), [&](int thread) {
      SharedFile& file = files_[thread % kFiles];
      Random random(static_cast<u32>(thread));
      while (Clock::now() < end_)
        thread < kFiles ? record(adaptor, file, random) : read(adaptor, file, random);
    });
    for (SharedFile& file : files_) expectWhole(adaptor, file.name, file.life / 2, file.promised);
    HOLDS(host_.openDescriptors == 0);
    dprintf(kStdout, "%lu flushes, %lu lives of %d files, %lu tags delivered, %lu seeks\n",
            counts_.flushes.load(), counts_.lives.load(), kFiles, counts_.delivered.load(),
            counts_.seeks.load());
  }

 private:
  // One handle's time: some flushes, then the next life or the same file again.
  void record(flv::FLVAdaptor& adaptor, SharedFile& file, Random& random) {
    const u32 life = file.life / 2;
    const bool isNew = !fs::exists(file.path()), late = random.oneIn(3);
    const KTPtr<MirrorConn> mirror(new MirrorConn);
    {
      Stream stream(adaptor, file.name, Stream::record, late ? nullptr : mirror.get());
      HOLDS(stream);
      u32 next = file.promised;
      for (u32 flushes = 1 + random.below(8); flushes > 0 && next < kMostTags; --flushes) {
        for (u32 tags = random.below(30); tags > 0; --tags) {
          const Message tag = tagOf(life, next++);
          HOLDS(stream.stage(tag.type, tag.time, tag.data));
        }
        if (late && flushes == 1) adaptor.setUserData(stream.handle, mirror.get());
        if (next == file.promised) continue;
        HOLDS(stream.flush());
        file.promised = next;
        ++counts_.flushes;
        if (random.oneIn(4))
          HOLDS(stream.stage(9, next * kStepMs, tagOf(life, next).data)), HOLDS(stream.flush()),
              file.promised = ++next;
      }
    }
    if ((isNew || late) && !mirror->files.empty()) expectSameBytes(*mirror, file);
    if (file.promised >= kMostTags || random.oneIn(10)) endLife(adaptor, file, random);
  }

  // A mirror that has been there from the start, or was brought up to date, has every byte.
  static void expectSameBytes(MirrorConn& mirror, const SharedFile& file) {
    std::FILE* const in = std::fopen(file.path().c_str(), "rb");
    HOLDS(in);
    Bytes bytes(fs::file_size(file.path()));
    HOLDS(std::fread(bytes.data(), 1, bytes.size(), in) == bytes.size());
    std::fclose(in);
    HOLDS(mirror.files.begin()->second.bytes() == bytes);
  }

  void endLife(flv::FLVAdaptor& adaptor, SharedFile& file, Random& random) {
    const u32 promised = file.promised, life = file.life / 2;
    ++file.life;
    switch (random.below(3)) {
      case 0: {
        Stream stream(adaptor, file.name);
        HOLDS(stream && adaptor.erase(stream.handle));
        break;
      }
      case 1:
        fs::rename(file.path(), native(file.name) + "_old.flv");
        expectWhole(adaptor, file.name + "_old", life, promised);
        break;
      default: {  // By another film, at once.
        const std::string other = native(file.name) + "_new.flv";
        const Bytes film = FlvBuilder().bytes();
        std::FILE* const out = std::fopen(other.c_str(), "wb");
        HOLDS(out && std::fwrite(film.data(), 1, film.size(), out) == film.size());
        std::fclose(out);
        fs::rename(other, file.path());
      }
    }
    file.promised = 0;
    ++file.life;
    ++counts_.lives;
  }

  // One handle's time: follows the file to its end, or looks for times in it.
  void read(flv::FLVAdaptor& adaptor, SharedFile& file, Random& random) {
    const u32 life = file.life;
    const u32 promised = file.promised;
    Stream stream(adaptor, file.name);
    if (life % 2 == 1 || promised < 2) return;
    const auto sameLife = [&] { return file.life == life; };
    if (!stream) return HOLDS(!sameLife());
    const u32 found = random.oneIn(2) ? follow(stream, life / 2, sameLife)
                                      : seek(stream, promised, life / 2, sameLife, random);
    // While a flush is being written, its torn end hides the tag in front of it.
    HOLDS(!sameLife() || found + 1 >= promised);
  }

  template <class SameLife>
  u32 follow(Stream& stream, u32 life, const SameLife& sameLife) {
    u32 next = 0;
    i64 position = 0;
    for (int looks = 0; looks < 20 && sameLife(); ++looks) {
      stream.size();
      while (const auto bounds = stream.atPosition(position)) {
        if (bounds->endPosition < position) break;
        for (const Message& tag : stream.load(*bounds)) {
          HOLDS(!sameLife() || tag == tagOf(life, next));
          ++next;
        }
        position = bounds->endPosition + 1;
      }
    }
    counts_.delivered += next;
    return next;
  }

  template <class SameLife>
  u32 seek(Stream& stream, u32 promised, u32 life, const SameLife& sameLife, Random& random) {
    stream.size();
    for (int looks = 0; looks < 20 && sameLife(); ++looks) {
      const u32 wanted = random.below(promised - 1);
      const auto bounds = stream.atTime(wanted * kStepMs);
      HOLDS(bounds || !sameLife());
      if (!bounds) return 0;
      bool found = false;
      for (const Message& tag : stream.load(*bounds)) found |= tag == tagOf(life, wanted);
      HOLDS(found || !sameLife());
      ++counts_.seeks;
    }
    return promised;
  }

  static void expectWhole(flv::FLVAdaptor& adaptor, const std::string& name, u32 life, u32 promised) {
    if (promised == 0) return;
    Stream stream(adaptor, name);
    HOLDS(stream);
    u32 next = 0;
    for (const SegmentBounds& bounds : stream.walk())
      for (const Message& tag : stream.load(bounds)) HOLDS(tag == tagOf(life, next++));
    HOLDS(next == promised);
  }

  const Clock::time_point end_;
  const fs::path folder_;
  DiskHost host_;
  SharedFile files_[kFiles];
  Counts counts_;
};

}  // namespace
}  // namespace orv::test

int main(int argc, char** argv) {
  orv::test::Soak(argc > 1 ? std::atof(argv[1]) : 120).run();
}
