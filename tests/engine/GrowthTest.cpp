// A player beside a recording of the same file: the summary, the searches, the head records and the loads
// follow each flush.

#include "RecordTest.h"
#include "server/compositemessage.h"

namespace orv::test {
namespace {

using namespace amf;

Message mediaTag(u32 i) {
  return {i % 3 == 0 ? kAudio : kVideo, 20 * i, payload(i % 3 == 0 ? kAudio : kVideo, 500 + i * 37 % 900, i)};
}

class GrowthTest : public RecordTest {
 protected:
  GrowthTest() { host.beforeCall = nullptr; }
};

TEST_F(GrowthTest, playerSeesEachFlush) {
  constexpr u32 kFlushes = 12, kTagsAFlush = 60;  // 0.7 MiB: three blocks
  Stream recorder = openRecord();
  const auto metadata = [](double seconds) { return onMetaData(object({{"duration", number(seconds)}})); };
  recorder.stage(kData, 0, metadata(0));
  std::optional<Stream> player;
  u32 next = 1;
  for (u32 flush = 0; flush < kFlushes; ++flush) {
    const u32 oldest = next;
    for (u32 i = 0; i < kTagsAFlush; ++i, ++next)
      recorder.stage(mediaTag(next).type, mediaTag(next).time, mediaTag(next).data);
    EXPECT_TRUE(!player || player->duration() == 20 * (oldest - 1)) << "what is staged is nobody's yet";
    const auto bounds = recorder.flush();
    ASSERT_TRUE(bounds);
    if (!player) player.emplace(adaptor(), kName);
    ASSERT_EQ(player->size(), static_cast<i64>(bytes().size()));
    EXPECT_EQ(player->endPosition(), bounds->endPosition + 1);
    EXPECT_EQ(player->duration(), 20 * (next - 1));
    EXPECT_EQ(player->type(), 13u);
    EXPECT_EQ(player->metadata(), metadata((next - 1) * 20 / 1000.0)) << flush;
    // Each handle finds the new tags by time and by position, and loads them.
    for (Stream* stream : {&*player, &recorder}) {
      for (const u32 i : {oldest, next - 1}) {
        const auto byTime = stream->atTime(20 * i);
        ASSERT_TRUE(byTime) << flush << ", tag " << i;
        bool good = false;
        const auto tags = unpack(stream->load(*byTime, &good));
        EXPECT_TRUE(good);
        EXPECT_NE(std::find(tags.begin(), tags.end(), mediaTag(i)), tags.end()) << flush << ", tag " << i;
      }
      u32 i = 1;
      for (const SegmentBounds& segment : stream->walk())
        for (const Message& tag : unpack(stream->load(segment))) EXPECT_EQ(tag, mediaTag(i++)) << flush;
      EXPECT_EQ(i, next) << "the metadata is no part of a load";
    }
  }
  EXPECT_TRUE(host.log.empty());
}

// What aggregates carry comes out of them again, whole, and however they are split.
TEST_F(GrowthTest, aggregatesTakenApart) {
  constexpr u32 kTags = 700;
  Stream stream = openRecord();
  for (u32 i = 1; i <= kTags; ++i) {
    stream.stage(mediaTag(i).type, mediaTag(i).time, mediaTag(i).data);
    EXPECT_EQ(i % 100 == 0 && !stream.flush(), false);
  }
  std::vector<Message> tags;
  const auto take = [](CompositeMessage& part, std::vector<Message>& out) {
    for (const auto& entry : part)
      out.push_back(
          {entry->type(), entry->time(), Bytes(entry->payload(), entry->payload() + entry->payloadSize())});
  };
  u32 aggregates = 0;
  for (const SegmentBounds& bounds : stream.walk()) {
    for (const Message& message : stream.load(bounds)) {
      ASSERT_EQ(message.type, flv::kTypeAggregate);
      const auto size = static_cast<u32>(message.data.size());
      const KTMemoryPtr block(size, nullptr);
      std::memcpy(block->data, message.data.data(), size);
      const CompositeMessagePtr whole(new CompositeMessage(block, size));
      std::vector<Message> entries;
      take(*whole, entries);
      EXPECT_EQ(whole->time(), message.time);
      EXPECT_EQ(whole->lastTime(), entries.back().time);
      ++aggregates;
      for (u32 at = 0; at <= entries.size(); ++at) {
        for (const bool byTime : {true, false}) {
          CompositeMessagePtr first, second;
          if (byTime)
            whole->splitAtTime(at < entries.size() ? entries[at].time : ~0u, first, second);
          else
            whole->splitAtIndex(at, first, second);
          std::vector<Message> joined;
          if (first) take(*first, joined);
          ASSERT_EQ(joined.size(), at);
          if (second) take(*second, joined);
          ASSERT_EQ(joined, entries);
        }
      }
      tags.insert(tags.end(), entries.begin(), entries.end());
    }
  }
  ASSERT_EQ(tags.size(), kTags);
  for (u32 i = 1; i <= kTags; ++i) EXPECT_EQ(tags[i - 1], mediaTag(i));
  EXPECT_GT(aggregates, 5u);
}

}  // namespace
}  // namespace orv::test
