#include "FlvWriter.h"

#include <gtest/gtest.h>

#include "FlvNames.h"
#include "Movie.h"

namespace orv::host {
namespace {

using namespace test;

// A tag's size has 24 bits.
TEST(FlvWriter, anAggregateNeverOutgrowsATag) {
  const u32 half = flv::kMaxTagDataSize / 2 - flv::kTagOverhead;
  const Bytes data(flv::kMaxTagDataSize, 0x12);
  TempDir dir;
  OutputFile out(dir.path("out.flv"), Existing::refuse, FileIdentity{});
  FlvWriter writer(out);
  writer.header(1);
  for (const u32 size : {half, half, half, flv::kMaxTagDataSize}) writer.join({9, 1, 0, data.data(), size});
  writer.finish();

  std::vector<std::pair<u16, std::size_t>> kindsAndSizes;
  for (const auto& tag : tagsOf(str(TempDir::read(dir.path("out.flv"))))) {
    kindsAndSizes.emplace_back(tag.type, tag.data.size());
  }
  const u32 entry = half + flv::kTagOverhead;
  EXPECT_EQ(kindsAndSizes, (std::vector<std::pair<u16, std::size_t>>{
                               {22, 2 * entry}, {22, entry}, {9, flv::kMaxTagDataSize}}));
}

TEST(FlvNames, tellKeyFramesAndCodecSetupsApart) {
  const struct {
    u8 type;
    Bytes data;
    bool key, setup;
    const char* codec;
  } kTags[] = {
      {9, {0x12, 0}, true, false, "H.263 (Sorenson)"},
      {9, {0x22, 0}, false, false, "H.263 (Sorenson)"},
      {9, {0x17, 0}, false, true, "H.264"},
      {9, {0x17, 1}, true, false, "H.264"},
      {9, {0x1F}, true, false, "unknown codec 15"},
      {9, {}, false, false, ""},
      {8, {0xAF, 0}, false, true, "AAC"},
      {8, {0xAF, 1}, false, false, "AAC"},
      {8, {0x2F}, false, false, "MP3, 44.1 kHz, stereo, 16 bit"},
      {8, {0x10}, false, false, "ADPCM, 5.5 kHz, mono, 8 bit"},
      {9 | 0x20, {0x17, 0}, false, false, "encrypted"},
      {18, {0x12}, false, false, ""},
  };
  for (const auto& t : kTags) {
    const Tag tag{t.type, 0, 0, t.data.data(), static_cast<u32>(t.data.size())};
    EXPECT_EQ(isKeyFrame(tag), t.key) << t.codec;
    EXPECT_EQ(isCodecSetup(tag), t.setup) << t.codec;
    EXPECT_EQ(codecText(tag), t.codec);
  }
}

TEST(Tags, aTornAggregateGivesItsWholeEntries) {
  const Bytes entry = tagBytes(9, 7, Bytes{0x12, 1, 2});
  const Bytes two = join(entry, entry);
  for (u32 size = 0; size <= two.size(); ++size) {
    const Bytes cut(two.begin(), two.begin() + size);  // Its own block: a read behind it shows.
    u32 met = 0;
    const bool whole = forEachTag(Message{22, 7, cut.data(), size}, [&](const Tag&) { ++met; });
    EXPECT_EQ(met, size / entry.size());
    EXPECT_EQ(whole, size % entry.size() == 0);
  }
}

}  // namespace
}  // namespace orv::host
