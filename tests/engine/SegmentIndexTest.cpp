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

const SegmentBounds& holderOf(const std::vector<SegmentBounds>& segments, i64 position) {
  return *std::find_if(segments.begin(), segments.end(), [&](auto& s) { return s.endPosition >= position; });
}

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
      {"sizes of segments in the settings",
       FlvBuilder().constantRate(1'000'000, 100),
       {{"MinSegSize", "300000"}, {"MaxSegSize", "500000"}}},
      {"scenes", FlvBuilder().scenes(2'000'000)},
      {"scenes, cache smaller than the reads",
       FlvBuilder().scenes(1'000'000),
       {{"AutoBufferReadSize", "1024"}}},
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
  for (const auto& film : kFilms) {
    const auto expected = segmentsOf(film.film);
    const auto isExpectedAt = [&](i64 position, const std::optional<SegmentBounds>& found) {
      return found == holderOf(expected, position);
    };
    configure(film.settings);
    Random random(1);
    const auto anyTag = [&] { return film.film.tags()[random() % film.film.tags().size()]; };

    Stream walked = open(film.film);
    const auto row = walked.walk();
    ASSERT_TRUE(row == expected) << film.name;
    for (int round = 0; round < 10; ++round) {  // nothing cached at first, then more and more
      Stream stream = open();
      for (int query = 0; query < 8; ++query) {
        const BuiltTag tag = anyTag();
        ASSERT_TRUE(isExpectedAt(tag.position, stream.atTime(tag.time))) << film.name << ' ' << tag.time;
        host.clearCalls();
        ASSERT_TRUE(stream.atTime(tag.time) && host.calls.empty()) << film.name << ' ' << tag.time;
        const i64 inside = tag.position + static_cast<i64>(random() % (tag.size + 15));
        ASSERT_TRUE(isExpectedAt(inside, stream.atPosition(inside))) << film.name << ' ' << inside;
      }
    }
  }
  EXPECT_TRUE(host.log.empty());
}

TEST_F(SegmentIndexTest, bordersOfTheFile) {
  const FlvBuilder film = FlvBuilder().tag(kVideo, 100, 20).tag(kVideo, 5000, 20);
  Stream stream = open(film);
  const SegmentBounds whole{0, film.size() - 1, 100, 5001};
  for (const i64 position : {i64{-5}, i64{0}, i64{12}, i64{13}, film.size() - 1})
    EXPECT_TRUE(stream.atPosition(position) == whole) << position;
  for (const u32 time : {100u, 101u, 4999u, 5000u}) EXPECT_TRUE(stream.atTime(time) == whole) << time;
  host.clearCalls();
  EXPECT_FALSE(stream.atPosition(film.size()) || stream.atTime(99) || stream.atTime(5001));
  EXPECT_TRUE(stream.atTime(200) && stream.atPosition(50));
  EXPECT_TRUE(host.calls.empty());  // neither the impossible nor the known costs a call
}

TEST_F(SegmentIndexTest, tagsOfOneTime) {
  FlvBuilder film;
  for (int i = 0; i < 700; ++i) film.tag(kVideo, 77, 1000);
  Stream stream = open(film);
  EXPECT_TRUE(stream.atTime(77));
  EXPECT_EQ(stream.walk().size(), segmentsOf(film).size());
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
      {"in the first block", 9, 50'000, 90'000, 20},
      {"in the first block, at the same time", 9, 50'000, 90'000, 0},
      {"in the first block, one millisecond later", 9, 50'000, 90'000, 1},
      {"out of the first block", 9, 200'000, 900'000, 20},
      {"in a later block", 9, 600'000, 650'000, 20},
      {"in a later block, at the same time", 9, 600'000, 650'000, 0},
      {"over later blocks, a block of them at the same time", 9, 600'000, 1'500'000, 0, 400'000},
      {"in a later block, after a pause", 9, 600'000, 650'000, 60'000},
      {"over later blocks", 9, 600'000, 1'500'000, 20},
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
      host.append(kFile, {film.bytes().begin() + oldEnd, film.bytes().end()});
      ASSERT_EQ(stream.endPosition(), film.size());

      const auto isFound = [&](const BuiltTag& tag) {
        const auto found = byTime ? stream.atTime(tag.time) : stream.atPosition(tag.position);
        return found && (byTime ? holdsTime(*found, tag.time)
                                : found->startPosition <= tag.position && tag.position <= found->endPosition);
      };
      // From the far end first, so that nothing nearer is cached.
      for (std::size_t i = film.tags().size(); i-- > oldTags - 2;)
        ASSERT_TRUE(isFound(film.tags()[i])) << growth.name << (byTime ? " by time " : " by position ") << i;
      const auto row = stream.walk();
      ASSERT_TRUE(std::equal(known.begin(), known.end(), row.begin())) << growth.name;
      EXPECT_EQ(row[known.size()].startPosition, oldEnd) << growth.name;
      EXPECT_EQ(row.back().endPosition, film.size() - 1) << growth.name;
      std::vector<Message> all;
      for (const SegmentBounds& segment : row)
        for (Message& tag : unpack(stream.load(segment))) all.push_back(std::move(tag));
      EXPECT_EQ(all, messagesOf(film)) << growth.name;
      EXPECT_TRUE(host.log.empty()) << growth.name << ' ' << host.log[0].text;
    }
  }
}

// A recorder and a follower at random: whatever was asked in between, every byte is covered once.
TEST_F(SegmentIndexTest, growthInManySteps) {
  for (u32 seed = 0; seed < 20; ++seed) {
    Random random(seed);
    FlvBuilder film;
    film.interleaved(2, 0, 13);
    Stream stream = open(film);
    for (int step = 0; step < 12; ++step) {
      const i64 before = film.size();
      film.interleaved(1 + random.below(600), film.lastTime() + random.below(3));
      host.append(kFile, {film.bytes().begin() + before, film.bytes().end()});
      if (random.below(4) == 0) continue;  // the player misses this one
      ASSERT_EQ(stream.endPosition(), film.size());
      for (int query = 0; query < 3; ++query) {
        const BuiltTag& tag = film.tags()[random() % film.tags().size()];
        const auto found = random.below(2) ? stream.atTime(tag.time) : stream.atPosition(tag.position);
        ASSERT_TRUE(found) << seed << ' ' << step << ' ' << tag.time;
      }
    }
    stream.size();
    i64 next = 0;
    for (const SegmentBounds& segment : stream.walk()) {
      EXPECT_EQ(segment.startPosition, next) << seed;
      next = segment.endPosition + 1;
    }
    EXPECT_EQ(next, film.size()) << seed;
  }
  EXPECT_TRUE(host.log.empty());
}

TEST_F(SegmentIndexTest, budgetOfASeek) {
  constexpr u32 kTags = 500'000;  // 1 GB
  host.put(kFile, uniformFlv(kTags, 2000, 20));
  Random random(3);
  for (int round = 0; round < 30; ++round) {
    Stream stream = open();
    host.clearCalls();
    const u32 time = random.below(kTags) * 20;
    ASSERT_TRUE(holdsTime(stream.atTime(time).value(), time));
    EXPECT_LE(host.calls.size(), 12u);  // a constant rate needs one pass
    EXPECT_LE(host.bytesRead(), 256 * 1024);
  }
}

}  // namespace
}  // namespace orv::test
