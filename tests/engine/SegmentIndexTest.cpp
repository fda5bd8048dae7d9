// Which segment a position or a time belongs to.

#include <algorithm>
#include <cmath>

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
      {"large aggregates", FlvBuilder().scenes(2'000'000), {{"MaxAggMsgSize", "9999999"}}},
      {"single tags", FlvBuilder().scenes(1'000'000), {{"EnableAggMsgs", "false"}}},
      {"odd reads", FlvBuilder().scenes(1'000'000), {{"AutoBufferReadSize", "1024"}, {"ReadSize", "17001"}}},
      {"long tag", FlvBuilder().tag(kAudio, 5, 72).tag(kVideo, 9, 999'985).constantRate(1'500'000)},
      {"long first tag", FlvBuilder().tag(kVideo, 9, 999'985).constantRate(1'500'000)},
      {"tag that ends with a block", FlvBuilder().tag(kVideo, 9, kBlock - 28).constantRate(600'000)},
      {"a byte into a block", FlvBuilder().tag(kVideo, 9, 72).tag(kVideo, 20, kBlock - 114)},
      {"header longer than a block", FlvBuilder(300'000).tag(kVideo, 9, 99).constantRate(900'000)},
      {"jump of the times", jump},
  };
  for (const auto& [name, film, settings] : kFilms) {
    const auto expected = segmentsOf(film);
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
    host.clearCalls();  // Neither the known nor the impossible costs a call.
    for (const i64 position : {-5, 0, 12}) ASSERT_TRUE(walked.atPosition(position) == expected[0]) << name;
    ASSERT_FALSE(walked.atTime(film.tags()[0].time - 1) || walked.atTime(film.lastTime() + 1)) << name;
    ASSERT_FALSE(walked.atPosition(film.size())) << name;
    ASSERT_TRUE(host.calls.empty()) << name;
    Random random(1);
    for (int query = 0; query < 10; ++query) {  // With nothing known.
      const BuiltTag tag = film.tags()[random() % film.tags().size()];
      const auto holder = std::find_if(expected.begin(), expected.end(),
                                       [&](auto& segment) { return segment.endPosition >= tag.position; });
      ASSERT_TRUE(open().atTime(tag.time) == *holder) << name << ' ' << tag.time;
      ASSERT_TRUE(open().atPosition(tag.end() - 1) == *holder) << name << ' ' << tag.position;
    }
  }
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

// A fixed handful of calls, whatever the length.
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

// 64 GiB whose times don't grow with the bytes: the span is halved all the same.
TEST_F(SegmentIndexTest, filesThatMislead) {
  constexpr i64 kTags = 4'600'000;
  constexpr u32 kSize = 15'000, kDay = 86'400'000;
  const struct {
    const char* name;
    std::size_t calls;  // Of the longest seek; a pass takes up to 18, and 40 passes are the most.
    std::function<double(double tag)> exactTime;
  } kMisleading[] = {
      {"constant", 34, [](double tag) { return tag * 20; }},
      {"all but the first after 24 days", 696,
       [](double tag) { return tag > 0 ? 24.0 * kDay + tag * 20 : 0; }},
      {"wrong last time", 355, [](double tag) { return tag == kTags - 1 ? 0xFFFFFFF0 : tag * 20; }},
      {"two sessions, 20 days apart", 379,
       [](double tag) { return tag * 20 + (tag > kTags / 3 ? 20.0 * kDay : 0); }},
      {"pauses of an hour", 731, [](double tag) { return tag * 20 + std::floor(tag / 9000) * 3'600'000; }},
      {"each minute slower", 405, [](double tag) { return std::pow(tag, 1.4); }},
      {"each minute faster", 344, [](double tag) { return 1000 * std::sqrt(tag); }},
      {"all but the ends at one time", 20,
       [](double tag) { return tag > 0 ? tag == kTags - 1 ? 9e7 : 50 : 0; }},
  };
  Random random(2);
  for (const auto& [name, calls, exactTime] : kMisleading) {
    const auto timeOf = [&time = exactTime](i64 tag) {
      return static_cast<u32>(time(static_cast<double>(tag)));
    };
    host.put(kFile, uniformFlv(kTags, kSize, timeOf));
    std::size_t most = 0;
    for (int seek = 0; seek < 25; ++seek) {
      const u32 time = timeOf(seek < 5 ? seek : random.below(kTags - 1));
      Stream stream = open();
      host.clearCalls();
      const auto found = stream.atTime(time);
      EXPECT_TRUE(found && holdsTime(*found, time)) << name << ' ' << time;
      most = std::max(most, host.calls.size());
    }
    EXPECT_LE(most, calls) << name;
  }
}

}  // namespace
}  // namespace orv::test
