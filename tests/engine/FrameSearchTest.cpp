// The frame search against a plain reading of its rules, over files damaged at random.

#include <gtest/gtest.h>

#include "QuietReads.h"
#include "ReferenceScan.h"
#include "modules/streams/flv/KTFLVData.h"
#include "modules/streams/flv/SegmentIndex.h"
#include "support/FlvBuilder.h"
#include "support/MemoryHost.h"
#include "support/Random.h"

namespace orv::test {
namespace {

using flv::FrameRecord;
using flv::SegmentRange;

constexpr u32 kBlock = 0x40000;

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

// A stream and the plain reading of the same bytes, under the same settings.
class Trial {
 public:
  explicit Trial(u32 seed) : random(seed, seed % 7 == 0), film(random.make()) {
    model.file = film;
    if (random.oneIn(2)) model.file.resize(film.size() - random.below(static_cast<u32>(film.size()) / 2));
    host.put("f.flv", model.file);
    flv::FLVConfig config;
    if (random.oneIn(3)) config.autoBufferReadSize = 1024 + random.below(20'000);
    if (random.oneIn(9)) config.maxFrameScan = model.maxFrameScan = random.below(2000);
    if (random.oneIn(6)) model.allowance = config.retryCorruptedFLVs = static_cast<i32>(random.below(3));
    config.playIncompleteFLVs = model.playIncomplete = !random.oneIn(4);
    stream.emplace(KTWideString(u"f"), config, nullptr, &host, &host);
  }

  // False if the file can't be read.
  bool look(bool isFirst) {
    const bool grows = !isFirst && model.file.size() < film.size();
    if (grows) host.append("f.flv", {film.begin() + static_cast<i64>(model.file.size()), film.end()});
    if (grows) model.file = film;
    const bool is = isFirst ? model.open() : !grows || model.refresh();
    EXPECT_EQ(isFirst ? stream->open(0) : stream->getSize() > 0, is);
    EXPECT_TRUE(!is || (stream->getSize() == model.dataEnd && stream->getDuration() == model.duration));
    return is;
  }
  void searchFrame() {
    if (model.dataEnd == model.first.position) return;
    SegmentRange range{model.first, model.last};
    if (random.oneIn(2)) range.first = anyPlace();
    if (random.oneIn(3)) range.last = anyPlace();
    if (range.span() <= 0) return;
    const i64 position = range.first.position + random.below(static_cast<u32>(range.span()));
    const int fd = host.open("f.flv", openflags::readOnly, 0, 0);
    SegmentRange found{{}, range.last}, expected = found;
    const bool is = stream->findFrameAtOrBefore(position, &found.first, range, fd);
    host.close(fd, 0);
    expectSame("frame", is, found, model.frameAt(position, &expected.first, range), expected);
  }
  // Finds by a position in what was damaged in front of a block, by any position, or by a time.
  void searchSegment() {
    SegmentRange found, expected;
    const u32 time = model.first.time + random.below(model.duration - model.first.time + 2);
    i64 position = random.below(static_cast<u32>(model.dataEnd) + 2);
    if (random.oneIn(2)) position = std::max(position, i64{kBlock}) / kBlock * kBlock - random.below(20'000);
    const bool byTime = random.oneIn(2);
    const auto search = [&] {
      return byTime ? stream->findSegmentByTime(time, &found) : stream->findSegmentByIndex(position, &found);
    };
    const bool is = search();
    expectSame("segment", is, found,
               byTime ? model.findByTime(time, &expected) : model.findByPosition(position, &expected),
               expected);
    if (!is || (!byTime && position >= found.last.position)) return;
    host.clearCalls();  // What is known costs no call.
    ASSERT_TRUE(search() && found == expected && host.calls.empty());
  }

  RandomFilm random;
  const Bytes film;
  MemoryHost host;
  ReferenceIndex model;
  std::optional<flv::KTFLVData> stream;
  std::map<std::string, u32> outcomes;

 private:
  FrameRecord anyPlace() {
    const i64 position =
        model.first.position + random.below(static_cast<u32>(model.dataEnd - model.first.position));
    FrameRecord frame{position, 0, position};
    if (random.oneIn(2)) model.validateFrame(position, &frame);
    return frame;
  }
  // So many reports of bad data too.
  void expectSame(const std::string& what, bool is, const SegmentRange& found, bool expectedIs,
                  const SegmentRange& expected) {
    ASSERT_EQ(is, expectedIs) << what;
    ASSERT_TRUE(!is || found == expected) << what;
    const auto reports = static_cast<std::size_t>(std::count_if(
        host.log.begin(), host.log.end(), [](auto& line) { return line.level == kLogBadData; }));
    ASSERT_EQ(reports, model.reports) << what;
    ++outcomes[what + (is ? " found" : reports > reports_ ? " reported" : " not found")];
    reports_ = reports;
  }

  std::size_t reports_ = 0;
};

TEST(FrameSearchTest, sameAsAPlainReading) {
  const QuietReads quiet;
  std::map<std::string, u32> outcomes;
  for (u32 seed = 0; seed < 2100; ++seed) {
    SCOPED_TRACE(seed);
    Trial trial(seed);
    for (u32 query = 0; query < 36; ++query) {
      if (query % 18 == 0 && !trial.look(query == 0)) break;
      query % 3 == 0 ? trial.searchFrame() : trial.searchSegment();
      if (HasFailure()) return;
    }
    for (const auto& [name, times] : trial.outcomes) outcomes[name] += times;
  }
  // The films reach every outcome often.
  EXPECT_EQ(outcomes.size(), 6u);
  for (const auto& [name, times] : outcomes)
    EXPECT_GT(times, name == "segment reported" ? 40u : 400u) << name;
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

}  // namespace
}  // namespace orv::test
