// What a play-out with aggregates writes can be taken apart with the base library.

#include "Movie.h"
#include "Program.h"
#include "server/compositemessage.h"

namespace orv::host {
namespace {

using namespace test;

TagList entriesOf(CompositeMessage* message) {
  TagList list;
  if (!message) return list;
  for (const auto& entry : *message) {
    const u8* const data = entry->payload();
    list.push_back({entry->type(), entry->time(), {data, data + entry->payloadSize()}});
  }
  return list;
}

CompositeMessagePtr open(const Bytes& data) {
  const auto size = static_cast<u32>(data.size());
  const KTMemoryPtr block(size, nullptr);
  std::copy(data.begin(), data.end(), block->data);
  block->length.store(static_cast<i32>(size));
  return new CompositeMessage(block, size);
}

void expectSplit(const CompositeMessagePtr& first, const CompositeMessagePtr& second, const TagList& all,
                 std::size_t at) {
  TagList got = entriesOf(first.get());
  ASSERT_EQ(got.size(), at);
  const TagList behind = entriesOf(second.get());
  got.insert(got.end(), behind.begin(), behind.end());
  ASSERT_TRUE(got == all);
}

void splitEverywhere(const CompositeMessagePtr& message, const TagList& all) {
  CompositeMessagePtr first, second;
  for (u32 index = 0; index <= all.size(); ++index) {
    message->splitAtIndex(index, first, second);
    expectSplit(first, second, all, index);
  }
  for (const auto& entry : all) {
    for (const u32 time : {entry.time, entry.time + 1}) {
      const auto at = std::ranges::find_if(all, [&](const auto& e) { return e.time >= time; });
      message->splitAtTime(time, first, second);
      expectSplit(first, second, all, static_cast<std::size_t>(at - all.begin()));
    }
  }
}

TEST(Aggregates, ofAWholeFileComeApartAndSplitEverywhere) {
  TempDir dir;
  const std::string made = dir.file("made.flv", FlvBuilder().interleaved(1200, 1, 7).bytes());
  for (const std::string& file : {made, std::string(FLV_SAMPLE_PATH)}) {
    TagList wanted = tagsOf(str(TempDir::read(file))), got;
    std::erase_if(wanted, [](const auto& tag) { return tag.time == 0; });  // They come alone.
    u64 aggregates = 0;
    const std::vector<std::string> call{"play", file,    "--aggregates",       "-o",
                                        "-",    "--set", "MaxAggMsgSize=20000"};
    for (const auto& tag : tagsOf(flvhost(call).out)) {
      if (tag.type != flv::kTypeAggregate) continue;
      ++aggregates;
      const CompositeMessagePtr message = open(tag.data);
      const TagList entries = entriesOf(message.get());
      EXPECT_EQ(entries.front().time, tag.time);
      splitEverywhere(message, entries);
      got.insert(got.end(), entries.begin(), entries.end());
    }
    EXPECT_GT(aggregates, 10u);
    EXPECT_TRUE(got == wanted) << file;
  }
}

}  // namespace
}  // namespace orv::host
