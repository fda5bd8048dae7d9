// What a load delivers.

#include <random>

#include "EngineTest.h"

namespace orv::test {
namespace {

constexpr u8 kData = flv::kTypeDataAmf0;

class SegmentLoadTest : public EngineTest {
 protected:
  static inline const Settings kSingles{{"EnableAggMsgs", "false"}};

  // Loads everything behind the first tag's start, without asking the index.
  std::vector<Message> loadAll(const FlvBuilder& film, bool* good = nullptr) {
    Stream stream = open(film);
    return stream ? stream.load({0, film.size(), 0, 0}, good) : std::vector<Message>{};
  }
};

// The shape of a delivery: types, times and sizes.
std::vector<std::array<u32, 3>> shape(const std::vector<Message>& messages) {
  std::vector<std::array<u32, 3>> out;
  for (const Message& message : messages)
    out.push_back({message.type, message.time, static_cast<u32>(message.data.size())});
  return out;
}

TEST_F(SegmentLoadTest, packing) {
  const FlvBuilder film =  // the fourth tag is of no known frame type
      FlvBuilder()
          .tag(kVideo, 0, 20)
          .tag(kAudio, 10, 30)
          .tag(kVideo, 20, 0)
          .tag(kVideo, 30, Bytes{0x07, 1, 2})
          .tag(kVideo | 0x20, 40, Bytes{0x0F})
          .tag(kData | 0x20, 50, 7)
          .tag(kAudio, 0, 5)
          .tag(kVideo, 0x01000000, 9);
  using Shape = std::vector<std::array<u32, 3>>;
  const Shape singles{{9, 0, 20}, {8, 10, 30},       {9, 20, 0}, {kData | 0x20, 50, 7},
                      {8, 0, 5},  {9, 0x01000000, 9}};
  const struct {
    const char* name;
    Settings settings;
    Shape expected;
  } kPackings[] = {
      {"single tags", kSingles, singles},
      {"defaults", {}, {{9, 0, 20}, {8, 0, 5}, {22, 10, 106}}},
      {"size 0: one aggregate a tag",
       {{"MaxAggMsgSize", "-1"}},
       {{9, 0, 20}, {22, 10, 45}, {22, 20, 15}, {22, 50, 22}, {8, 0, 5}, {22, 0x01000000, 24}}},
      {"size reached exactly",
       {{"MaxAggMsgSize", "60"}},
       {{9, 0, 20}, {22, 10, 60}, {8, 0, 5}, {22, 50, 46}}},
      {"size just missed",
       {{"MaxAggMsgSize", "61"}},
       {{9, 0, 20}, {22, 10, 82}, {8, 0, 5}, {22, 0x01000000, 24}}},
  };
  for (const auto& packing : kPackings) {
    configure(packing.settings);
    bool good = false;
    const auto messages = loadAll(film, &good);
    EXPECT_TRUE(good) << packing.name;
    EXPECT_EQ(shape(messages), packing.expected) << packing.name;
  }
}

TEST_F(SegmentLoadTest, bytesOfAnAggregate) {
  const FlvBuilder film =
      FlvBuilder().tag(kAudio, 10, 30).tag(kVideo | 0x20, 0x01020304, 3).tag(kData, 99, 40);
  const auto messages = loadAll(film);
  ASSERT_EQ(messages.size(), 1u);
  // The tags as they stand in the file; only the last trailing field is not the file's.
  EXPECT_EQ(messages[0].data.size(), static_cast<std::size_t>(film.size() - 13));
  EXPECT_TRUE(std::equal(messages[0].data.begin(), messages[0].data.end() - 4, film.bytes().begin() + 13));
}

TEST_F(SegmentLoadTest, tagsThatEndALoad) {
  const FlvBuilder two = FlvBuilder().tag(kVideo, 10, 20).tag(kAudio, 20, 20);
  const struct {
    const char* name;
    FlvBuilder film;
    bool good;
    std::size_t delivered;
  } kLoads[] = {
      {"sound", FlvBuilder(two).tag(kVideo, 30, 20), true, 3},
      {"largest type", FlvBuilder(two).tag(21 | 0x20, 30, 20), true, 3},
      {"type outside the frame types", FlvBuilder(two).tag(0, 30, 20), true, 3},
      {"type 22", FlvBuilder(two).tag(22, 30, 20), false, 2},
      {"type with bit 6", FlvBuilder(two).tag(0x49, 30, 20), false, 2},
      {"type with bit 7", FlvBuilder(two).tag(0x89, 30, 20), false, 2},
      {"size field before a tag", FlvBuilder(two).trailing(30).tag(kVideo, 30, 20), false, 2},
      {"size field before a tag behind a dropped one",
       FlvBuilder(two).tag(kVideo, 25, Bytes{0}).trailing(13).tag(kVideo, 30, 20), false, 2},
  };
  // Three sound tags behind let an open find the end by the last tag alone.
  for (const bool packed : {false, true}) {
    configure(packed ? Settings{} : kSingles);
    for (const auto& load : kLoads) {
      FlvBuilder film(load.film);
      film.tag(kVideo, 40, 5).tag(kVideo, 50, 5).tag(kVideo, 60, 5);
      bool good = false;
      const auto tags = unpack(loadAll(film, &good));
      EXPECT_EQ(good, load.good) << load.name;
      const std::size_t expected = load.good ? load.delivered + 3 : packed ? 0 : load.delivered;
      EXPECT_EQ(tags.size(), expected) << load.name << packed;
    }
  }
  EXPECT_TRUE(host.log.empty());
}

TEST_F(SegmentLoadTest, boundsThatNobodyGaveOut) {
  const FlvBuilder film = FlvBuilder().tag(kVideo, 10, 20).tag(kAudio, 20, 20).tag(kVideo, 30, 60);
  const i64 end = film.size(), second = film.tags()[1].position, top = std::numeric_limits<i64>::max();
  constexpr std::size_t kFails = 99;
  const struct {
    i64 start, last;
    std::size_t packed, singles;  // Tags of a good load.
  } kBounds[] = {
      {0, end - 1, 3, 3},
      {-top, top, 3, 3},
      {0, second - 1, 1, 1},
      {second, end - 1, 2, 2},
      {0, 12, 0, 0},
      {20, 19, 0, 0},
      {end, end, 0, 0},
      {second, second - 1, 0, 0},
      {top, 0, 0, 0},
      {0, -top, 0, 0},
      {end - 1, top, kFails, kFails},
      {second + 1, top, kFails, kFails},
      {0, second + 5, kFails, 2},  // inside a tag's header; a single tag may use the whole work block
      {0, end - 6, kFails, 3},     // inside a tag's data
      {0, end - 5, 3, 3},
      {0, end - 4, 3, 3},
      {0, end - 3, 3, 3},
      {0, end - 2, 3, 3},  // inside the last trailing field, which nobody needs
  };
  for (const bool packed : {false, true}) {
    configure(packed ? Settings{} : kSingles);
    Stream stream = open(film);
    for (const auto& bounds : kBounds) {
      bool good = false;
      const auto tags = unpack(stream.load({bounds.start, bounds.last, 0, 0}, &good));
      EXPECT_EQ(good ? tags.size() : kFails, packed ? bounds.packed : bounds.singles)
          << bounds.start << ' ' << bounds.last << packed;
      const auto all = messagesOf(film);
      EXPECT_TRUE(std::search(all.begin(), all.end(), tags.begin(), tags.end()) != all.end() || tags.empty());
    }
  }
}

// Whatever packs or cuts the delivery, the same tags come.
TEST_F(SegmentLoadTest, sameTagsInEveryPacking) {
  const FlvBuilder film = FlvBuilder().interleaved(900, 1).tag(kVideo, 18'400, 300'000).scenes(900'000);
  for (const Settings& settings :
       {kSingles, Settings{}, Settings{{"MaxAggMsgSize", "0"}}, Settings{{"AutoBufferReadSize", "1024"}},
        Settings{{"MaxAggMsgSize", "9999999"}}}) {
    configure(settings);
    Stream stream = open(film);
    std::vector<Message> tags;
    for (const SegmentBounds& segment : stream.walk()) {
      for (const Message& message : stream.load(segment))
        EXPECT_TRUE(message.type == 22 || settings == kSingles);
      for (Message& tag : unpack(stream.load(segment))) tags.push_back(std::move(tag));
    }
    EXPECT_EQ(tags, messagesOf(film));
  }
}

TEST_F(SegmentLoadTest, bytesReadForBytesDelivered) {
  const FlvBuilder film = FlvBuilder().constantRate(3'000'000, 4000);
  Stream stream = open(film);
  const auto segments = stream.walk();
  host.clearCalls();
  for (const SegmentBounds& segment : segments) stream.load(segment);
  EXPECT_LE(static_cast<double>(host.bytesRead()), 1.2 * static_cast<double>(film.size()));
}

// Head records go out as media contexts elsewhere; any other tag of time 0 goes out alone.
TEST_F(SegmentLoadTest, otherDataTagsOfTimeZero) {
  const FlvBuilder film =
      FlvBuilder().tag(kData, 0, Bytes{2, 0, 3, 'f', 'o', 'o'}).tag(kVideo, 0, 9).tag(kVideo, 20, 9);
  EXPECT_EQ(unpack(loadAll(film)), messagesOf(film));
}

TEST_F(SegmentLoadTest, holdersExceptionPassesThrough) {
  struct Thrower final : ISegmentHolder {
    void onMessage(unsigned short, const void*, u32, u32) override { throw std::string("enough"); }
    void reserved() override {}
  } thrower;
  const FlvBuilder film = FlvBuilder().interleaved(9, 5);
  Stream stream = open(film);
  SegmentBounds bounds = stream.atPosition(0).value();
  EXPECT_THROW(stream.adaptor.loadSegment(stream.handle, &bounds, &thrower), std::string);
  EXPECT_EQ(host.openDescriptors(), 0u);
  EXPECT_EQ(unpack(stream.load(bounds)), messagesOf(film));
}

}  // namespace
}  // namespace orv::test
