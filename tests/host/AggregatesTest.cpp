// What a play-out with aggregates writes can be taken apart with the base library.

#include <gtest/gtest.h>

#include "FlvReader.h"
#include "Program.h"
#include "server/compositemessage.h"
#include "support/FlvBuilder.h"

namespace orv::host {
namespace {

using orv::test::FlvBuilder;
using test::Bytes;
using test::flvhost;
using test::TempDir;

struct Entry {
  u8 type;
  u32 time;
  Bytes data;
  bool operator==(const Entry&) const = default;
};
using EntryList = std::vector<Entry>;

Entry entryOf(const orv::SingleMessage& message) {
  return {message.type(), message.time(), {message.payload(), message.payload() + message.payloadSize()}};
}

EntryList entriesOf(CompositeMessage* message) {
  EntryList list;
  if (!message) return list;
  for (const auto& entry : *message) list.push_back(entryOf(*entry));
  return list;
}

CompositeMessagePtr open(const Tag& tag) {
  const KTMemoryPtr block(tag.size, nullptr);
  std::copy_n(tag.data, tag.size, block->data);
  block->length.store(static_cast<i32>(tag.size));
  return new CompositeMessage(block, tag.size);
}

void expectSplit(const CompositeMessagePtr& first, const CompositeMessagePtr& second, const EntryList& all,
                 std::size_t at) {
  const EntryList before = entriesOf(first.get()), behind = entriesOf(second.get());
  ASSERT_EQ(before.size(), at);
  ASSERT_EQ(before.size() + behind.size(), all.size());
  ASSERT_TRUE(std::equal(before.begin(), before.end(), all.begin()));
  ASSERT_TRUE(std::equal(behind.begin(), behind.end(), all.begin() + static_cast<long>(at)));
}

void splitEverywhere(const CompositeMessagePtr& message, const EntryList& all) {
  CompositeMessagePtr first, second;
  for (u32 index = 0; index <= all.size(); ++index) {
    message->splitAtIndex(index, first, second);
    expectSplit(first, second, all, index);
  }
  for (const Entry& entry : all) {
    for (const u32 time : {entry.time, entry.time + 1}) {
      const auto at = std::find_if(all.begin(), all.end(), [&](const Entry& e) { return e.time >= time; });
      message->splitAtTime(time, first, second);
      expectSplit(first, second, all, static_cast<std::size_t>(at - all.begin()));
    }
  }
}

TEST(Aggregates, ofAWholeFileComeApartAndSplitEverywhere) {
  TempDir dir;
  const std::string made = dir.file("made.flv", FlvBuilder().interleaved(1200, 1, 7).bytes());
  for (const std::string& file : {made, std::string(FLV_SAMPLE_PATH)}) {
    EntryList wanted, got;
    FlvReader source([&](const Tag& tag) {
      if (tag.time > 0) wanted.push_back({tag.type, tag.time, {tag.data, tag.data + tag.size}});
    });
    const Bytes bytes = TempDir::read(file);
    ASSERT_TRUE(source.feed(bytes.data(), bytes.size()));
    u64 aggregates = 0;
    FlvReader played([&](const Tag& tag) {
      if (tag.type != flv::kTypeAggregate) return;
      ++aggregates;
      const CompositeMessagePtr message = open(tag);
      const EntryList entries = entriesOf(message.get());
      EXPECT_EQ(entries.front().time, tag.time);
      splitEverywhere(message, entries);
      got.insert(got.end(), entries.begin(), entries.end());
    });
    const std::string out =
        flvhost({"play", file, "--aggregates", "-o", "-", "--set", "MaxAggMsgSize=20000"}).out;
    ASSERT_TRUE(played.feed(reinterpret_cast<const u8*>(out.data()), out.size()));
    EXPECT_GT(aggregates, 10u);
    EXPECT_TRUE(got == wanted) << file;
  }
}

}  // namespace
}  // namespace orv::host
