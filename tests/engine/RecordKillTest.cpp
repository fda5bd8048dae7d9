// A recording process is killed at random moments: what its flushes had promised is in the file.

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "RecordTest.h"
#include "support/DiskHost.h"
#include "support/Random.h"

namespace orv::test {
namespace {

using namespace amf;

constexpr u32 kTagsAFlush = 40;

Message tagOf(u32 i) {
  if (i == 0)
    return {kData, 0, onMetaData(object({{"duration", number(0)}, {"canSeekToEnd", boolean(false)}}))};
  return {i % 3 == 0 ? kAudio : kVideo, i, payload(i % 3 == 0 ? kAudio : kVideo, 20 + i * 37 % 3000, i)};
}

class RecordKillTest : public testing::Test {
 protected:
  RecordKillTest() {
    std::string text = (std::filesystem::temp_directory_path() / "recordkillXXXXXX").string();
    directory_ = mkdtemp(text.data());
    name = directory_ + "/film";
    std::replace(name.begin(), name.end(), '/', '\\');
    void* const page =
        mmap(nullptr, sizeof *promised, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    promised = new (page) std::atomic<u32>(0);
  }
  ~RecordKillTest() override {
    munmap(promised, sizeof *promised);
    std::filesystem::remove_all(directory_);
  }

  // Never ends by itself, unless nobody kills it.
  [[noreturn]] void recordForever() {
    alarm(20);
    DiskHost host;
    const auto adaptor = module.create(host);
    Stream stream(*adaptor, name, Stream::record);
    for (u32 i = 0;; ++i) {
      const auto [type, time, data] = tagOf(i);
      if (!stream.stage(type, time, data)) _exit(1);
      if ((i + 1) % kTagsAFlush != 0) continue;
      if (!stream.flush()) _exit(2);
      promised->store(i + 1);
    }
  }

  // Once so many tags are promised, however slow the machine, and a moment later.
  void killAfter(u32 tags, std::chrono::microseconds time) {
    promised->store(0);
    const pid_t child = fork();
    if (child == 0) recordForever();
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (promised->load() < tags && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
    std::this_thread::sleep_for(time);
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  }

  // The number of tags that a player finds, the metadata among them; all are what was recorded.
  u32 tagsFound(IQVStreamAdaptor& adaptor, bool* torn) {
    Stream stream(adaptor, name);
    if (!stream) return 0;
    *torn = stream.size() != static_cast<i64>(std::filesystem::file_size(directory_ + "/film.flv"));
    u32 next = stream.metadata().empty() ? 0 : 1;
    for (const SegmentBounds& bounds : stream.walk()) {
      bool good = false;
      for (const Message& tag : unpack(stream.load(bounds, &good))) EXPECT_EQ(tag, tagOf(next++));
      EXPECT_TRUE(good);
    }
    return next;
  }

  const Module module{FLV_MODULE_PATH};
  std::string name;
  std::string directory_;
  std::atomic<u32>* promised;  // Tags of completed flushes; shared with the child.
};

TEST_F(RecordKillTest, atRandomMoments) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  const int rounds = std::getenv("CI") ? 60 : 300;
  DiskHost host;
  const auto player = module.create(host);
  Random random(static_cast<u32>(Clock::now().time_since_epoch().count()));
  u32 mostPromised = 0, tornFiles = 0;
  for (int round = 0; round < rounds && Clock::now() < deadline; ++round) {
    std::filesystem::remove(directory_ + "/film.flv");
    const auto moment = std::chrono::microseconds(random.below(5'000));
    ASSERT_NO_FATAL_FAILURE(killAfter(static_cast<u32>(random.below(5)) * kTagsAFlush, moment));
    bool torn = false;
    // A torn last tag hides the whole tag before it.
    const u32 found = tagsFound(*player, &torn) + (torn ? 1 : 0);
    ASSERT_GE(found, promised->load()) << "round " << round << ", torn " << torn;
    ASSERT_EQ(host.openDescriptors, 0);
    mostPromised = std::max(mostPromised, promised->load());
    tornFiles += torn;
  }
  EXPECT_GT(mostPromised, 2 * kTagsAFlush);
  RecordProperty("mostPromised", static_cast<int>(mostPromised));
  RecordProperty("tornFiles", static_cast<int>(tornFiles));
}

}  // namespace
}  // namespace orv::test
