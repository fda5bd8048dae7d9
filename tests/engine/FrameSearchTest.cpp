// The frame search against a plain reading of its rules, over files damaged at random.

#include <gtest/gtest.h>

#include "ReferenceScan.h"
#include "modules/streams/flv/KTFLVData.h"
#include "support/FlvBuilder.h"
#include "support/MemoryHost.h"
#include "support/Random.h"

namespace orv::test {
namespace {

using flv::FrameRecord;
using flv::SegmentRange;

class RandomFilm : public Random {
 public:
  using Random::Random;

  // Tags that mostly follow from one another, with wrong sizes, odd types, junk and a torn end among them.
  Bytes make() {
    static constexpr u8 kTypes[] = {8, 9, 15, 17, 18, 20, 40, 41, 1, 22, 0};
    FlvBuilder film(oneIn(10) ? 9 + below(40) : 9);
    const u32 count = 1 + below(25), damage = 3 + below(30);
    for (u32 i = 0; i < count; ++i) {
      Bytes data = payload(9, dataSize(), (*this)());
      if (data.size() > 30 && oneIn(3)) plantTag(&data);
      film.tag(kTypes[below(oneIn(damage) ? 11 : 8)], oneIn(damage) ? (*this)() : i * 20, data);
      if (oneIn(damage)) film.trailing(below(200));
      if (oneIn(damage)) film.raw(Bytes(below(40), static_cast<u8>(below(12))));
    }
    Bytes bytes = film.bytes();
    if (oneIn(2)) bytes.resize(13 + below(static_cast<u32>(bytes.size()) - 12));
    if (oneIn(4)) bytes[9 + below(static_cast<u32>(bytes.size()) - 9)] ^= static_cast<u8>(1 + below(255));
    return bytes;
  }

 private:
  u32 dataSize() {
    u32 size = oneIn(20) ? below(20'000) : below(90);
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
    if (random.oneIn(5)) config.maxFrameScan = scan.maxFrameScan = 0x20000;
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

}  // namespace
}  // namespace orv::test
