// What a load delivers.

#include "EngineTest.h"

namespace orv::test {
namespace {

constexpr u8 kData = flv::kTypeDataAmf0;
constexpr u8 kHighest = 21 | flv::kFilterBit;

class SegmentLoadTest : public EngineTest {
 protected:
  static inline const Settings kSingles{{"EnableAggMsgs", "false"}};

  // Loads everything behind the first tag's start, without asking the index.
  std::vector<Message> loadWhole(const FlvBuilder& film, bool* good) {
    Stream stream = open(film);
    return stream ? stream.load({0, film.size(), 0, 0}, good) : std::vector<Message>{};
  }
};

TEST_F(SegmentLoadTest, packing) {
  const FlvBuilder film =
      FlvBuilder()
          .tag(kVideo, 0, 20)
          .tag(0, 10, 30)  // no frame type, but a tag all the same
          .tag(kVideo, 20, 0)
          .tag(kVideo, 30, Bytes{0x07, 1, 2})  // of no known frame type
          .tag(kVideo | 0x20, 40, Bytes{0x0F})
          .tag(kHighest, 50, 7)
          .tag(kData, 0, Bytes{2, 0, 3, 'f', 'o', 'o'})  // no head record, which a load would leave out
          .tag(kVideo, 0x01000000, 9);
  using Shape = std::vector<std::array<u32, 3>>;  // Types, times and sizes.
  const struct {
    const char* name;
    Settings settings;
    Shape expected;
  } kPackings[] = {
      {"single tags",
       kSingles,
       {{9, 0, 20}, {0, 10, 30}, {9, 20, 0}, {kHighest, 50, 7}, {kData, 0, 6}, {9, 0x01000000, 9}}},
      {"defaults", {}, {{9, 0, 20}, {kData, 0, 6}, {22, 10, 106}}},
      {"size 0: one aggregate a tag",
       {{"MaxAggMsgSize", "-1"}},
       {{9, 0, 20}, {22, 10, 45}, {22, 20, 15}, {22, 50, 22}, {kData, 0, 6}, {22, 0x01000000, 24}}},
      {"size reached exactly",
       {{"MaxAggMsgSize", "60"}},
       {{9, 0, 20}, {22, 10, 60}, {kData, 0, 6}, {22, 50, 46}}},
      {"size just missed",
       {{"MaxAggMsgSize", "61"}},
       {{9, 0, 20}, {22, 10, 82}, {kData, 0, 6}, {22, 0x01000000, 24}}},
  };
  for (const auto& [name, settings, expected] : kPackings) {
    configure(settings);
    bool good = false;
    Shape shape;
    for (const Message& message : loadWhole(film, &good))
      shape.push_back({message.type, message.time, static_cast<u32>(message.data.size())});
    EXPECT_TRUE(good) << name;
    EXPECT_EQ(shape, expected) << name;
  }
}

TEST_F(SegmentLoadTest, tagsThatEndALoad) {
  const FlvBuilder two = FlvBuilder().tag(kVideo, 10, 20).tag(kAudio, 20, 20);
  const std::pair<const char*, FlvBuilder> kFilms[] = {
      {"type 22", FlvBuilder(two).tag(22, 30, 20)},
      {"type with bit 6", FlvBuilder(two).tag(0x49, 30, 20)},
      {"type with bit 7", FlvBuilder(two).tag(0x89, 30, 20)},
      {"size field before a tag", FlvBuilder(two).trailing(30).tag(kVideo, 30, 20)},
      {"size field before a tag behind a dropped one",
       FlvBuilder(two).tag(kVideo, 25, Bytes{0}).trailing(13).tag(kVideo, 30, 20)},
  };
  for (const bool packed : {false, true}) {
    configure(packed ? Settings{} : kSingles);
    for (auto [name, film] : kFilms) {
      // Three sound tags behind let an open find the end by the last tag alone.
      film.tag(kVideo, 40, 5).tag(kVideo, 50, 5).tag(kVideo, 60, 5);
      bool good = true;
      EXPECT_EQ(loadWhole(film, &good).size(), packed ? 0u : 2u) << name;
      EXPECT_FALSE(good) << name << packed;
    }
  }
  EXPECT_TRUE(host.log.empty());
}

TEST_F(SegmentLoadTest, boundsThatNobodyGaveOut) {
  const FlvBuilder film = FlvBuilder().tag(kVideo, 10, 20).tag(kAudio, 20, 20).tag(kVideo, 30, 60);
  const auto all = messagesOf(film);
  const i64 end = film.size(), second = film.tags()[1].position, top = std::numeric_limits<i64>::max();
  constexpr std::size_t kFails = 99;
  const struct {
    i64 start, last;
    std::size_t packed, singles;  // Tags of a good load.
  } kBounds[] = {
      {-top, top, 3, 3},
      {0, second - 1, 1, 1},
      {second, end - 1, 2, 2},
      {end, end, 0, 0},
      {second, second - 1, 0, 0},
      {top, 0, 0, 0},
      {0, -top, 0, 0},
      {end - 1, top, kFails, kFails},
      {second + 1, top, kFails, kFails},
      {0, second + 5, kFails, 2},  // Inside a tag's header; a single tag may use the whole work block.
      {0, end - 6, kFails, 3},     // Inside a tag's data.
      {0, end - 5, 3, 3},          // Inside the last trailing field, which nobody needs.
      {0, end - 2, 3, 3},
  };
  for (const bool packed : {false, true}) {
    configure(packed ? Settings{} : kSingles);
    Stream stream = open(film);
    for (const auto& bounds : kBounds) {
      bool good = false;
      const auto tags = unpack(stream.load({bounds.start, bounds.last, 0, 0}, &good));
      EXPECT_EQ(good ? tags.size() : kFails, packed ? bounds.packed : bounds.singles)
          << bounds.start << ' ' << bounds.last << packed;
      EXPECT_TRUE(tags.empty() || std::search(all.begin(), all.end(), tags.begin(), tags.end()) != all.end());
    }
  }
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
