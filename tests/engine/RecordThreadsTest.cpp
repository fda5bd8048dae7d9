// Recording from many threads at once: streams of their own, and one stream that all share.

#include <atomic>
#include <thread>

#include "RecordTest.h"

namespace orv::test {
namespace {

constexpr u32 kThreads = 4;

class RecordThreadsTest : public RecordTest {
 protected:
  RecordThreadsTest() { host.beforeCall = nullptr; }

  template <class Work>
  static void inThreads(Work work) {
    std::vector<std::thread> threads;
    for (u32 i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
  }
  std::vector<Message> everything(const std::string& path) {
    Stream stream(adaptor(), path);
    std::vector<Message> tags;
    for (const SegmentBounds& bounds : stream.walk())
      for (Message& tag : unpack(stream.load(bounds))) tags.push_back(std::move(tag));
    return tags;
  }
  static std::string nameOf(u32 thread) { return "c:\\media\\film" + std::to_string(thread); }
};

// Tags carry their thread and their number.
Bytes mark(u32 thread, u32 number) {
  return {0x12, static_cast<u8>(thread), static_cast<u8>(number >> 8), static_cast<u8>(number)};
}

TEST_F(RecordThreadsTest, streamsOfTheirOwn) {
  constexpr u32 kTags = 200;
  adaptor();
  inThreads([&](u32 thread) {
    const KTPtr<MirrorConn> copy{new MirrorConn};
    for (int life = 0; life < 3; ++life) {
      Stream stream(adaptor(), nameOf(thread), Stream::record, copy.get());
      stream.stage(kData, 0, onMetaData(amf::object({{"duration", amf::number(0)}})));
      for (u32 i = 1; i <= kTags; ++i) {
        EXPECT_TRUE(stream.stage(kVideo, i, mark(thread, i)));
        EXPECT_EQ(i % 40 == 0 && !stream.flush(), false);
        EXPECT_GE(stream.size(), 13);
      }
      EXPECT_EQ(copy->files[nameOf(thread) + ".flv"].size(), stream.size());
      EXPECT_TRUE(life == 2 || adaptor().erase(stream.handle));
    }
  });
  for (u32 thread = 0; thread < kThreads; ++thread) {
    const auto tags = everything(nameOf(thread));
    ASSERT_EQ(tags.size(), kTags);
    for (u32 i = 0; i < kTags; ++i) EXPECT_EQ(tags[i].data, mark(thread, i + 1));
  }
}

TEST_F(RecordThreadsTest, oneStream) {
  constexpr u32 kTags = 500;
  Stream stream = openRecord(mirror.get());
  std::atomic<u32> running{kThreads};
  u32 flushes = 0;
  std::thread flusher([&] {
    while (running > 0) {
      flushes += stream.flush().has_value();
      adaptor().setUserData(stream.handle, mirror.get());
    }
  });
  inThreads([&](u32 thread) {
    for (u32 i = 0; i < kTags; ++i) {
      EXPECT_TRUE(stream.stage(kVideo, 1 + i, mark(thread, i)));
      if (i % 16 == 0) std::this_thread::yield();
    }
    --running;
  });
  flusher.join();
  stream.flush();
  EXPECT_GT(flushes, 1u);
  const auto tags = everything(kName);
  ASSERT_EQ(tags.size(), kThreads * kTags);
  u32 next[kThreads] = {};
  for (const Message& tag : tags) {
    const u32 thread = tag.data[1];
    EXPECT_EQ(tag.data, mark(thread, next[thread]++));
  }
  EXPECT_EQ(mirror->files[kFile].bytes(), bytes());
}

}  // namespace
}  // namespace orv::test
