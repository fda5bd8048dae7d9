// A recording process is killed at random moments: what its flushes had promised is in the file.

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "RecordTest.h"
#include "support/DiskHost.h"
#include "support/Random.h"

namespace orv::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr u32 kTagsAFlush = 40;

Message tagOf(u32 i) {
  return sessionTag(i, 20 + i * 37 % 3000);
}

// Writes a byte to `promises` after each flush. Ends by itself only if nobody kills it.
[[noreturn]] void recordForever(const Module& module, const std::string& name, int promises) {
  alarm(20);
  DiskHost host;
  const auto adaptor = module.create(host);
  Stream stream(*adaptor, name, Stream::record);
  for (u32 i = 0;; ++i) {
    const auto [type, time, data] = tagOf(i);
    if (!stream.stage(type, time, data)) _exit(1);
    if ((i + 1) % kTagsAFlush == 0 && (!stream.flush() || write(promises, "", 1) != 1)) _exit(2);
  }
}

TEST(RecordKillTest, atRandomMoments) {
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  const int rounds = std::getenv("CI") ? 60 : 300;
  const std::string directory = testing::TempDir() + "flv_kill_" + std::to_string(getpid());
  const std::string name = directory + "\\film", file = directory + "/film.flv";
  std::filesystem::create_directory(directory);
  const Module module(FLV_MODULE_PATH);
  DiskHost host;
  const auto player = module.create(host);
  Random random(static_cast<u32>(Clock::now().time_since_epoch().count()));
  u32 mostPromised = 0;
  for (int round = 0; round < rounds && Clock::now() < deadline; ++round) {
    std::filesystem::remove(file);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) recordForever(module, name, ends[1]);
    close(ends[1]);
    // Once so many flushes are promised, however slow the machine, and a moment later.
    u32 promised = 0;
    char byte;
    for (auto flushes = random.below(5); flushes > 0 && read(ends[0], &byte, 1) == 1; --flushes)
      promised += kTagsAFlush;
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(5'000)));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    while (read(ends[0], &byte, 1) == 1) promised += kTagsAFlush;
    close(ends[0]);

    u32 found = 0;
    if (Stream stream(*player, name); stream) {
      found = stream.metadata().empty() ? 0 : 1;
      for (const Message& tag : tagsOf(stream)) EXPECT_EQ(tag, tagOf(found++));
      // A torn last tag hides the whole tag before it.
      found += stream.size() != static_cast<i64>(std::filesystem::file_size(file));
    }
    ASSERT_GE(found, promised) << "round " << round;
    ASSERT_EQ(host.openDescriptors, 0);
    mostPromised = std::max(mostPromised, promised);
  }
  EXPECT_GT(mostPromised, 2 * kTagsAFlush);
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace orv::test
