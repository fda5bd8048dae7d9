// Recording from many threads at once: streams of their own, and one stream that all share.

#include <atomic>
#include <chrono>
#include <thread>

#include "RecordTest.h"
#include "support/Threads.h"

namespace orv::test {
namespace {

constexpr u32 kThreads = 4;

class RecordThreadsTest : public RecordTest {
 protected:
  RecordThreadsTest() { host.beforeCall = nullptr; }
};

// Carries its thread and its number.
Message tagOf(u32 thread, u32 number) {
  const Bytes mark{0x12, static_cast<u8>(thread), static_cast<u8>(number >> 8), static_cast<u8>(number)};
  return {kVideo, 1 + number, mark};
}

TEST_F(RecordThreadsTest, streamsOfTheirOwn) {
  constexpr u32 kTags = 200;
  adaptor();
  onThreads(kThreads, [&](u32 thread) {
    const std::string name = kName + std::to_string(thread);
    const KTPtr<MirrorConn> copy{new MirrorConn};
    std::vector<Message> tags;
    for (int life = 0; life < 3; ++life) {
      Stream stream(adaptor(), name, Stream::record, copy.get());
      stage(stream, {{kData, 0, durationMetadata(0)}});
      tags.clear();
      for (u32 i = 0; i < kTags; ++i) {
        tags.push_back(tagOf(thread, i));
        stage(stream, {tags.back()});
        EXPECT_TRUE(i % 40 != 39 || stream.flush());
        EXPECT_GE(stream.size(), 13);
      }
      EXPECT_EQ(copy->files[name + ".flv"].size(), stream.size());
      EXPECT_TRUE(life == 2 || adaptor().erase(stream.handle));
    }
    Stream player(adaptor(), name);
    EXPECT_EQ(tagsOf(player), tags);
  });
}

TEST_F(RecordThreadsTest, oneStream) {
  constexpr u32 kTags = 500;
  Stream stream = openRecord(mirror.get());
  std::atomic<u32> running{kThreads}, flushes{0};
  using Clock = std::chrono::steady_clock;
  const auto limit = Clock::now() + std::chrono::seconds(10);
  std::thread flusher([&] {
    while (running > 0) {
      flushes += stream.flush().has_value();
      adaptor().setUserData(stream.handle, mirror.get());
    }
  });
  onThreads(kThreads, [&](u32 thread) {
    for (u32 i = 0; i < kTags; ++i) {
      stage(stream, {tagOf(thread, i)});
      // However busy the machine, some flushes come in between.
      while (flushes < i * 4 / kTags && Clock::now() < limit) std::this_thread::yield();
    }
    --running;
  });
  flusher.join();
  stream.flush();
  EXPECT_GT(flushes, 1u);
  const auto tags = tagsOf(stream);
  ASSERT_EQ(tags.size(), kThreads * kTags);
  u32 next[kThreads] = {};
  for (const Message& tag : tags) {
    const u32 thread = tag.data[1];
    EXPECT_EQ(tag, tagOf(thread, next[thread]++));
  }
  EXPECT_EQ(mirror->files[kFile].bytes(), bytes());
}

}  // namespace
}  // namespace orv::test
