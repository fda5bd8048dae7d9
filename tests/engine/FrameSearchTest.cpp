// The frame search against a plain reading of its rules, over files damaged at random.

#include <gtest/gtest.h>

#include <cmath>

#include "QuietReads.h"
#include "ReferenceScan.h"
#include "modules/streams/flv/KTFLVData.h"
#include "modules/streams/flv/SegmentSeek.h"
#include "support/FlvBuilder.h"
#include "support/MemoryHost.h"
#include "support/Random.h"

namespace orv::test {
namespace {

using flv::FrameRecord;
using flv::SegmentRange;

constexpr u32 kFilms = 300;
constexpr u32 kBlock = 0x40000;

std::size_t reportsIn(const std::vector<LogLine>& log) {
  return static_cast<std::size_t>(
      std::count_if(log.begin(), log.end(), [](auto& line) { return line.level == kLogBadData; }));
}

class RandomFilm : public Random {
 public:
  // A long film has tags of up to 40,000 bytes and some segments.
  explicit RandomFilm(u32 seed, bool isLong = false) : Random(seed), isLong_(isLong) {}

  // Tags that mostly follow from one another, with wrong sizes, odd types, junk and a torn end among them.
  Bytes make() {
    static constexpr u8 kTypes[] = {8, 9, 15, 17, 18, 20, 40, 41, 1, 22, 0};
    FlvBuilder film(isLong_ && oneIn(20) ? 300'000 : oneIn(10) ? 9 + below(40) : 9);
    const u32 slowness = 1 + below(5);  // Of the clock: so many tags at a time bear the same.
    const u32 count = 1 + below(isLong_ ? 90 : 25), damage = 3 + below(30);
    for (u32 i = 0; i < count; ++i) {
      Bytes data = payload(9, dataSize(), (*this)());
      if (data.size() > 30 && oneIn(3)) plantTag(&data);
      film.tag(kTypes[below(oneIn(damage) ? 11 : 8)], oneIn(damage) ? (*this)() : i / slowness * 20, data);
      if (oneIn(damage)) film.trailing(below(200));
      if (oneIn(damage)) film.raw(Bytes(below(40), static_cast<u8>(below(12))));
    }
    Bytes bytes = film.bytes();
    if (oneIn(2)) bytes.resize(13 + below(static_cast<u32>(bytes.size()) - 12));
    for (std::size_t block = kBlock; block < bytes.size(); block += kBlock) {
      const std::size_t from = block - below(20'000), size = oneIn(2) ? below(40'000) : 0;
      std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(from), std::min(size, bytes.size() - from), 0);
    }
    if (oneIn(4)) bytes[9 + below(static_cast<u32>(bytes.size()) - 9)] ^= static_cast<u8>(1 + below(255));
    return bytes;
  }

 private:
  u32 dataSize() {
    u32 size = isLong_ && oneIn(2) ? below(40'000) : oneIn(20) ? below(20'000) : below(90);
    // A trailing field that is torn and ends in one of these could be completed by what a read past the end
    // wraps to.
    while (std::string_view("\1FLV").find(static_cast<char>(size + 11)) != std::string_view::npos) ++size;
    return size;
  }
  // A whole tag inside a tag's data: rejected by its neighbours' sizes alone.
  void plantTag(Bytes* data) {
    const Bytes tag = tagBytes(9, 5, Bytes(below(10)));
    std::copy(tag.begin(), tag.end(), data->begin() + below(static_cast<u32>(data->size() - tag.size())));
  }

  bool isLong_;
};

// Whether a frame was found, its place and time, and the reports of bad data.
using Result = std::tuple<bool, i64, i64, u32, std::size_t>;
Result result(bool found, const FrameRecord& frame, std::size_t reports) {
  if (!found) return {false, 0, 0, 0, reports};
  return {true, frame.position, frame.end, frame.time, reports};
}

FrameRecord anyPlace(RandomFilm& random, const ReferenceScan& scan) {
  const i64 position =
      scan.first.position + random.below(static_cast<u32>(scan.dataEnd - scan.first.position));
  FrameRecord frame{position, 0, position};
  if (random.oneIn(2)) scan.validateFrame(position, &frame);
  return frame;
}

TEST(FrameSearchTest, sameAsAPlainReading) {
  const QuietReads quiet;
  using Outcome = ReferenceScan::Outcome;
  std::map<Outcome, u32> reached;
  for (u32 seed = 0; seed < 2000; ++seed) {
    RandomFilm random(seed);
    MemoryHost host;
    ReferenceScan scan;
    scan.file = random.make();
    host.put("f.flv", scan.file);
    flv::FLVConfig config;
    if (random.oneIn(3)) config.autoBufferReadSize = 1024 + random.below(20'000);
    if (random.oneIn(5)) config.maxFrameScan = scan.maxFrameScan = random.below(2000);
    config.playIncompleteFLVs = scan.playIncomplete = !random.oneIn(4);
    flv::KTFLVData stream(KTWideString(u"f"), config, nullptr, &host, &host);
    const bool opened = scan.open();
    ASSERT_EQ(stream.open(0), opened) << seed;
    if (!opened) continue;
    ASSERT_EQ(stream.getSize(), scan.dataEnd) << seed;
    ASSERT_EQ(stream.getDuration(), scan.duration) << seed;
    if (scan.dataEnd == scan.first.position) continue;

    const int fd = host.open("f.flv", openflags::readOnly, 0, 0);
    for (int query = 0; query < 10; ++query) {
      SegmentRange range{scan.first, scan.last};
      if (random.oneIn(2)) range.first = anyPlace(random, scan);
      if (random.oneIn(3)) range.last = anyPlace(random, scan);
      if (range.span() <= 0) continue;
      const i64 position = range.first.position + random.below(static_cast<u32>(range.span()));

      FrameRecord frame;
      const Outcome outcome = scan.findFrameAtOrBefore(position, &frame, range, scan.maxFrameScan);
      ++reached[outcome];
      const auto expected = result(outcome == Outcome::found, frame, outcome == Outcome::badData);
      host.log.clear();
      const bool found = stream.findFrameAtOrBefore(position, &frame, range, fd);
      ASSERT_EQ(result(found, frame, host.log.size()), expected)
          << "seed " << seed << ", position " << position << " in " << range.first.position << " to "
          << range.last.position;
    }
    host.close(fd, 0);
  }
  // The films reach every outcome often.
  for (const Outcome outcome : {Outcome::found, Outcome::none, Outcome::badData})
    EXPECT_GT(reached[outcome], 400u);
}

// A film of tags of `dataSize` bytes, whose times `timeOf` gives, searched with nothing but the seek's own
// parts.
class SeekTest : public testing::Test {
 protected:
  using TimeOf = std::function<u32(i64 tag)>;

  // Segments that a seek has visited, one a pass; 0 if it found none that holds the time.
  std::size_t passes(i64 tags, u32 dataSize, const TimeOf& timeOf, u32 time) {
    host.put("f", uniformFlv(tags, dataSize, timeOf));
    const int fd = host.open("f", openflags::readOnly, 0, 0);
    autofilebuffer buffer(0x48000, &host);
    const flv::FrameTypes types(std::vector{flv::kTypeVideo});
    const flv::FrameLimits limits{13, host.file("f").image.size(), types};
    flv::BadDataReports reports(&host, u"f", -1);
    flv::FrameFinder finder({buffer, &host, fd, 16384, 0x1000000}, limits, reports);
    const SegmentRange film{{13, timeOf(0), 28 + i64{dataSize}},
                            FrameRecord::endMark(limits.dataEnd, timeOf(tags - 1) + 1)};
    flv::SegmentIndex index;
    flv::SegmentIndex::Hint hint;
    SegmentRange found = film;
    index.searchIndexByTime(time, &found, &hint);
    const bool is = flv::SegmentSeek(finder, index, found, hint).seekSegmentByTime(time, &found);
    host.close(fd, 0);
    host.clearCalls();
    return is && found.holdsTime(time) ? index.size() : 0;
  }

  MemoryHost host;
};

// 64 GiB whose times don't grow with the bytes: the span is halved all the same.
TEST_F(SeekTest, passesOnFilesThatMislead) {
  constexpr i64 kTags = 4'600'000;
  constexpr u32 kSize = 15'000, kDays = 86'400'000;
  const std::pair<const char*, TimeOf> kMisleading[] = {
      {"constant", [](i64 tag) { return static_cast<u32>(tag * 20); }},
      {"first tag at 0, the rest after 24 days",
       [](i64 tag) { return static_cast<u32>(tag ? 24 * kDays + tag * 20 : 0); }},
      {"wrong last time", [](i64 tag) { return tag == kTags - 1 ? 0xFFFFFFF0 : static_cast<u32>(tag * 20); }},
      {"two sessions, 20 days apart",
       [](i64 tag) { return static_cast<u32>(tag * 20 + (tag > kTags / 3 ? 20 * kDays : 0)); }},
      {"pauses of an hour", [](i64 tag) { return static_cast<u32>(tag * 20 + tag / 9000 * 3'600'000); }},
      {"each minute slower",
       [](i64 tag) { return static_cast<u32>(std::pow(static_cast<double>(tag), 1.4)); }},
      {"each minute faster",
       [](i64 tag) { return static_cast<u32>(1000 * std::sqrt(static_cast<double>(tag))); }},
      {"all but the ends at one time",
       [](i64 tag) { return tag == 0           ? 0
                            : tag == kTags - 1 ? 90'000'000
                                               : 50u; }},
  };
  Random random(2);
  for (const auto& [name, timeOf] : kMisleading) {
    for (int seek = 0; seek < 25; ++seek) {
      const u32 time = timeOf(seek < 5 ? seek : random.below(kTags - 1));
      const std::size_t took = passes(kTags, kSize, timeOf, time);
      EXPECT_TRUE(took > 0 && took <= 40) << name << ' ' << time << ' ' << took;
    }
  }
}

// What the processor finds sixteen at a time is what a plain walk finds.
TEST(FrameTypesTest, sixteenAtATimeAsOneByOne) {
  Random random(4);
  for (int round = 0; round < 300; ++round) {
    std::vector<u8> types(1 + random.below(20));
    for (u8& type : types) type = static_cast<u8>(random());
    const flv::FrameTypes set(types);
    Bytes bytes(20 + random.below(300));
    const u32 density = 2 + random.below(40);
    for (u8& byte : bytes) {
      byte = static_cast<u8>(random.oneIn(2) ? random() : random.below(3));
      if (random.oneIn(density)) byte = types[random.below(static_cast<u32>(types.size()))];
    }
    const i64 low = 4 + random.below(8);
    for (i64 high = static_cast<i64>(bytes.size()) - 1; high >= low;) {
      const i64 found = set.highest(bytes.data(), high, low);
      ASSERT_EQ(found, set.highestPlain(bytes.data(), high, low)) << round;
      ASSERT_TRUE(found < low || set.test(bytes[static_cast<std::size_t>(found)]));
      high = std::min(found, high) - 1;
    }
  }
}

// The index against a plain list, with times that run forwards and with times that don't.
TEST(SegmentIndexModel, answersAsAPlainList) {
  std::size_t largest = 0;
  for (u32 seed = 0; seed < 60; ++seed) {
    Random random(seed);
    const u32 damage = seed % 3 ? 0 : 3 + random.below(40);
    flv::SegmentIndex index;
    ReferenceIndex model;
    model.first = {13, 5, 20};
    model.last = FrameRecord::endMark(2'000'000, 2'000'000);
    for (int i = 0; i < 1500; ++i) {
      const u32 value = random.below(2'000'000);
      const bool byTime = random.oneIn(2);
      SegmentRange range{model.first, model.last}, expected;
      flv::SegmentIndex::Hint hint;
      std::size_t place = 0;
      const bool known = byTime ? index.searchIndexByTime(value, &range, &hint)
                                : index.searchIndexByPosition(value, &range, &hint);
      ASSERT_EQ(byTime ? model.look(value, &FrameRecord::time, &expected, &place)
                       : model.look(value, &FrameRecord::position, &expected, &place),
                known)
          << seed;
      ASSERT_TRUE(range == expected) << seed << ' ' << value;
      if (random.oneIn(200)) {
        const FrameRecord end{1'000'000 + random.below(1'000'000), 1'000'000 + random.below(1'000'000),
                              2'000'000};
        index.endAt(end);
        while (!model.list.empty() && model.list.back().first.position >= end.position) model.list.pop_back();
        if (!model.list.empty() && model.list.back().last.position >= end.position)
          model.list.back().last = end;
        continue;
      }
      if (known || range.span() <= 0) continue;
      // A segment anywhere in the range, which touches its ends at times.
      const auto between = [&random](const FrameRecord& a, const FrameRecord& b) {
        if (random.oneIn(4)) return random.oneIn(2) ? a : b;
        const u32 times = b.time > a.time ? b.time - a.time : 0;
        const i64 position = a.position + random.below(static_cast<u32>(b.position - a.position + 1));
        return FrameRecord{position, a.time + random.below(times + 1), position + 15};
      };
      SegmentRange segment{between(range.first, range.last), {}};
      FrameRecord reach = range.last;
      if (reach.position - segment.first.position > 3000 && reach.time > segment.first.time + 3000)
        reach = {segment.first.position + 3000, segment.first.time + 3000, 0};
      segment.last = between(segment.first, reach);
      if (damage && random.oneIn(damage)) segment.last.time = random.below(2'000'000);
      ASSERT_EQ(index.insertSegment(segment, &hint), segment.span() > 0);
      if (segment.span() > 0)
        model.list.insert(model.list.begin() + static_cast<std::ptrdiff_t>(place), segment);
      ASSERT_EQ(index.size(), model.list.size());
    }
    largest = std::max(largest, index.size());
  }
  EXPECT_GT(largest, 200u);
}

// Both searches, with all that they leave in the index and in the log, over long films that grow.
TEST(FrameSearchTest, segmentsAreThoseOfAPlainReading) {
  const QuietReads quiet;
  std::map<bool, u32> found, reported;
  for (u32 seed = 0; seed < kFilms; ++seed) {
    RandomFilm random(seed, true);
    MemoryHost host;
    ReferenceIndex index;
    const Bytes film = random.make();
    index.file = film;
    if (random.oneIn(2)) index.file.resize(film.size() - random.below(static_cast<u32>(film.size()) / 2));
    host.put("f.flv", index.file);
    flv::FLVConfig config;
    if (random.oneIn(3)) index.allowance = config.retryCorruptedFLVs = static_cast<i32>(random.below(3));
    flv::KTFLVData stream(KTWideString(u"f"), config, nullptr, &host, &host);
    const bool opened = index.open();
    ASSERT_EQ(stream.open(0), opened) << seed;
    for (int query = 0; opened && query < 24; ++query) {
      if (query == 12 && index.file.size() < film.size()) {
        host.append("f.flv", {film.begin() + static_cast<std::ptrdiff_t>(index.file.size()), film.end()});
        index.file = film;
        index.refresh();
        ASSERT_EQ(stream.getSize(), index.dataEnd) << seed;
      }
      SegmentRange range, expected;
      const u32 time = index.first.time + random.below(index.duration - index.first.time + 2);
      i64 position = random.below(static_cast<u32>(index.dataEnd) + 2);
      // In what was damaged in front of a block, or anywhere.
      if (random.oneIn(2))
        position = std::max(position, i64{kBlock}) / kBlock * kBlock - random.below(20'000);
      const bool byTime = random.oneIn(2);
      const bool is =
          byTime ? stream.findSegmentByTime(time, &range) : stream.findSegmentByIndex(position, &range);
      ASSERT_EQ(byTime ? index.findByTime(time, &expected) : index.findByPosition(position, &expected), is)
          << seed << ' ' << query;
      ASSERT_TRUE(!is || range == expected) << seed << ' ' << query;
      ASSERT_EQ(reportsIn(host.log), index.reports) << seed << ' ' << query;
      ++found[is];
      if (!is || (!byTime && position >= range.last.position)) continue;
      host.clearCalls();  // What is known costs no call.
      ASSERT_TRUE(byTime ? stream.findSegmentByTime(time, &range)
                         : stream.findSegmentByIndex(position, &range));
      ASSERT_TRUE(host.calls.empty()) << seed << ' ' << query;
    }
    ++reported[index.reports > 0];
  }
  EXPECT_GT(std::min(found[true], found[false]), kFilms);
  EXPECT_GT(reported[true], kFilms / 20);
}

}  // namespace
}  // namespace orv::test
