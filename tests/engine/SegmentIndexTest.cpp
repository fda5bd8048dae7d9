// Which segment a position or a time belongs to.

#include <algorithm>

#include "EngineTest.h"
#include "support/Random.h"

namespace orv::test {
namespace {

using SegmentIndexTest = EngineTest;

bool holdsTime(const SegmentBounds& bounds, u32 time) {
  return time == bounds.startTime || (time > bounds.startTime && time < bounds.endTime);
}

// By a full read: a segment starts at each tag that holds the start of a block.
std::vector<SegmentBounds> segmentsOf(const FlvBuilder& film) {
  std::vector<SegmentBounds> segments;
  for (const BuiltTag& tag : film.tags()) {
    const bool holdsBlockStart = (tag.end() - 1) / kBlock * kBlock >= tag.position;
    if (!segments.empty() && !holdsBlockStart) continue;
    if (!segments.empty()) segments.back().endPosition = tag.position - 1, segments.back().endTime = tag.time;
    segments.push_back({segments.empty() ? 0 : tag.position, film.size() - 1, tag.time, film.lastTime() + 1});
  }
  return segments;
}

// And they are delivered whole, whatever packs or cuts the delivery.
TEST_F(SegmentIndexTest, segmentsAreThoseOfAFullRead) {
  FlvBuilder jump;
  jump.constantRate(400'000).tag(kVideo, 90'000'000, 9).constantRate(900'000);
  const struct {
    const char* name;
    FlvBuilder film;
    Settings settings{};
  } kFilms[] = {
      {"one tag", FlvBuilder().tag(kVideo, 500, 10)},
      {"small tags", FlvBuilder().constantRate(1'000'000, 100)},
      {"scenes, large aggregates", FlvBuilder().scenes(2'000'000), {{"MaxAggMsgSize", "9999999"}}},
      {"scenes, single tags", FlvBuilder().scenes(1'000'000), {{"EnableAggMsgs", "false"}}},
      {"scenes, small read cache", FlvBuilder().scenes(1'000'000), {{"AutoBufferReadSize", "1024"}}},
      {"scenes, odd read sizes",
       FlvBuilder().scenes(1'000'000),
       {{"AutoBufferReadSize", "20011"}, {"ReadSize", "17001"}}},
      {"tag over several blocks",
       FlvBuilder().tag(kAudio, 5, 72).tag(kVideo, 9, 999'985).constantRate(1'500'000)},
      {"first tag over several blocks", FlvBuilder().tag(kVideo, 9, 999'985).constantRate(1'500'000)},
      {"tag that ends with a block", FlvBuilder().tag(kVideo, 9, kBlock - 28).constantRate(600'000)},
      {"file that ends one byte into a block", FlvBuilder().tag(kVideo, 9, 72).tag(kVideo, 20, kBlock - 114)},
      {"tag that ends one byte into a block", FlvBuilder().tag(kVideo, 9, kBlock - 27).constantRate(600'000)},
      {"header longer than a block", FlvBuilder(300'000).tag(kVideo, 9, 99).constantRate(900'000)},
      {"jump of the times", jump},
  };
  for (const auto& [name, film, settings] : kFilms) {
    const auto expected = segmentsOf(film);
    const auto isHolder = [&](i64 position, const std::optional<SegmentBounds>& found) {
      return found == *std::find_if(expected.begin(), expected.end(),
                                    [&](auto& segment) { return segment.endPosition >= position; });
    };
    configure(settings);
    Stream walked = open(film);
    ASSERT_TRUE(walked.walk() == expected) << name;
    const auto messages = loadAll(walked);
    EXPECT_EQ(unpack(messages), messagesOf(film)) << name;
    Bytes aggregates;  // They are tags as these stand in the file.
    for (const Message& message : messages)
      if (message.type == flv::kTypeAggregate)
        aggregates.insert(aggregates.end(), message.data.begin(), message.data.end());
    EXPECT_TRUE(std::equal(aggregates.rbegin(), aggregates.rend(), film.bytes().rbegin())) << name;
    Random random(1);
    const auto anyTag = [&random, &tags = film.tags()] { return tags[random() % tags.size()]; };
    for (int round = 0; round < 10; ++round) {  // nothing cached at first, then more and more
      Stream stream = open();
      for (int query = 0; query < 8; ++query) {
        const BuiltTag tag = anyTag(), other = anyTag();
        const u32 time = std::min(tag.time + random.below(4), film.lastTime());  // before the next tag's
        ASSERT_TRUE(isHolder(tag.position, stream.atTime(time))) << name << ' ' << time;
        host.clearCalls();
        ASSERT_TRUE(stream.atTime(time) && stream.atPosition(tag.position)) << name << ' ' << time;
        ASSERT_FALSE(stream.atTime(film.tags()[0].time - 1) || stream.atTime(film.lastTime() + 1)) << name;
        ASSERT_FALSE(stream.atPosition(film.size())) << name;
        ASSERT_TRUE(host.calls.empty()) << name;  // neither the known nor the impossible costs a call
        const i64 inside = other.position + random.below(other.size + 15);
        ASSERT_TRUE(isHolder(inside, stream.atPosition(inside))) << name << ' ' << inside;
      }
      for (const i64 position : {-5, 0, 12}) ASSERT_TRUE(stream.atPosition(position) == expected[0]) << name;
    }
  }
  EXPECT_TRUE(host.log.empty());
}

TEST_F(SegmentIndexTest, aTagLongerThanTheSearch) {
  const FlvBuilder film = FlvBuilder().tag(kVideo, 1, 9).tag(kVideo, 20, 200'000).tag(kVideo, 40, 9);
  configure({{"MaxFrameScan", "131072"}});
  Stream stream = open(film);
  const i64 tag = film.tags()[1].position;
  EXPECT_FALSE(stream.atPosition(tag + 131'073));
  EXPECT_TRUE(stream.atPosition(tag + 131'072));
  EXPECT_TRUE(host.log.empty());
}

TEST_F(SegmentIndexTest, timesThatRunBackwards) {
  FlvBuilder film;
  film.tag(kVideo, 0, 1000);
  for (u32 i = 0; i < 3000; ++i) film.tag(kVideo, 5000 - i, 1000);
  film.tag(kVideo, 100'000, 1000);
  for (const auto& [retry, lines] : std::map<std::string, std::size_t>{{"-1", 3}, {"0", 1}, {"1", 2}}) {
    host.log.clear();
    configure({{"RetryCorruptedFLVs", retry}});
    Stream stream = open(film);
    for (int query = 0; query < 3; ++query) EXPECT_FALSE(stream.atTime(50'000 + static_cast<u32>(query)));
    EXPECT_EQ(host.log.size(), lines) << retry;
    for (const LogLine& line : host.log) {
      EXPECT_EQ(line.text.rfind("File contains bad data : c:\\media\\film.flv (", 0), 0u) << line.text;
      EXPECT_TRUE(line.level == 3 && line.flag == 1);
    }
    // Once the allowance is used up only what is known is found.
    EXPECT_EQ(stream.walk().size(), retry == "-1" ? segmentsOf(film).size() : 0) << retry;
  }
}

// A player whose last segment ended at the old end of the file reaches what was added behind it.
TEST_F(SegmentIndexTest, growthBehindACachedLastSegment) {
  const struct {
    const char* name;
    u32 headerSize;
    i64 oldSize;
    i64 newSize;
    u32 pauseMs;      // Between the last old tag and the first new one.
    i64 oneTime = 0;  // Bytes of new tags that all bear the time of the first.
  } kGrowths[] = {
      {"in the first block, at the same time", 9, 50'000, 90'000, 0},
      {"in the first block, one millisecond later", 9, 50'000, 90'000, 1},
      {"out of the first block", 9, 200'000, 900'000, 20},
      {"in a later block, after a pause", 9, 600'000, 650'000, 60'000},
      {"over later blocks, a block of them at the same time", 9, 600'000, 1'500'000, 0, 400'000},
      {"behind a header longer than a block", 300'000, 310'000, 900'000, 20},
  };
  for (const auto& growth : kGrowths) {
    for (const bool byTime : {true, false}) {
      FlvBuilder film(growth.headerSize);
      film.tag(kVideo, 40, 900).constantRate(growth.oldSize);
      Stream stream = open(film);
      const auto known = stream.walk();
      const std::size_t oldTags = film.tags().size();
      const i64 oldEnd = film.size();
      film.tag(kAudio, film.lastTime() + growth.pauseMs, 300);
      while (film.size() < oldEnd + growth.oneTime) film.tag(kVideo, film.lastTime(), 900);
      film.constantRate(growth.newSize);
      grow(film);
      ASSERT_EQ(stream.endPosition(), film.size());

      const auto isFoundAt = [&](u32 time) {
        const auto found = stream.atTime(time);
        return found && holdsTime(*found, time);
      };
      const auto isFound = [&](const BuiltTag& before, const BuiltTag& tag) {
        if (byTime) return isFoundAt(tag.time) && isFoundAt((before.time + tag.time) / 2);
        const auto found = stream.atPosition(tag.position);
        return found && found->startPosition <= tag.position && tag.position <= found->endPosition;
      };
      // From the far end first, so that nothing nearer is cached.
      for (std::size_t i = film.tags().size(); i-- > oldTags - 2;)
        ASSERT_TRUE(isFound(film.tags()[i - 1], film.tags()[i])) << growth.name << byTime << ' ' << i;
      const auto row = stream.walk();
      ASSERT_TRUE(std::equal(known.begin(), known.end(), row.begin())) << growth.name;
      EXPECT_EQ(unpack(loadAll(stream)), messagesOf(film)) << growth.name;
      EXPECT_TRUE(host.log.empty()) << growth.name << ' ' << host.log[0].text;
    }
  }
}

// A fixed handful of calls, whatever the length.
// What the host was told stands, though the torn end of a flush under way hides a tag that it knows.
TEST_F(SegmentIndexTest, anEndThatIsTornForAMoment) {
  FlvBuilder film = FlvBuilder().constantRate(50'000);
  Stream stream = open(film);
  const auto told = stream.walk();
  const Bytes more = tagBytes(kVideo, film.lastTime() + 20, payload(kVideo, 5000, 1));
  host.append(kFile, Bytes(more.begin(), more.begin() + 3000));
  EXPECT_LT(stream.size(), film.size());
  host.append(kFile, Bytes(more.begin() + 3000, more.end()));
  EXPECT_EQ(stream.size(), film.size() + static_cast<i64>(more.size()));
  const auto found = stream.walk();
  ASSERT_EQ(found.size(), told.size() + 1);
  EXPECT_EQ(found.front(), told.front());
  EXPECT_EQ(found.back().startPosition, film.size());
}

TEST_F(SegmentIndexTest, budgets) {
  Random random(3);
  for (const u32 count : {520u, 533'000u, 34'100'000u}) {  // 1 MiB, 1 GiB, 64 GiB
    host.put(kFile, uniformFlv(count, 2000, 20));
    for (int round = 0; round < 30; ++round) {
      host.clearCalls();
      Stream stream = open();
      EXPECT_EQ(host.calls.size(), 7u);
      EXPECT_LE(host.bytesRead(), 576 * 1024);
      EXPECT_EQ(stream.size(), 13 + i64{count} * 2015);
      EXPECT_EQ(stream.duration(), (count - 1) * 20);
      host.clearCalls();
      const u32 time = random.below(count) * 20;
      const SegmentBounds found = stream.atTime(time).value();
      ASSERT_TRUE(holdsTime(found, time));
      EXPECT_LE(host.calls.size(), 12u);  // a constant rate needs one pass
      EXPECT_LE(host.bytesRead(), 256 * 1024);
      host.clearCalls();
      stream.load(found);
      EXPECT_LE(host.bytesRead() * 10, (found.endPosition - found.startPosition) * 12);
    }
  }
}

}  // namespace
}  // namespace orv::test
