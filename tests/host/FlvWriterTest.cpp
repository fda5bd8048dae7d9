#include "FlvWriter.h"

#include <gtest/gtest.h>

#include <tuple>

#include "FlvNames.h"
#include "ReadOnlyFile.h"
#include "TempDir.h"
#include "support/FlvBuilder.h"

namespace orv::host {
namespace {

using orv::test::FlvBuilder;
using test::Bytes;
using test::TempDir;

constexpr FileIdentity kNoInput{0, 0, 0};

using Step = std::tuple<u8, u32, Bytes>;  // Type, time, data.

// The file that a run of calls writes: `join` or `tag` for each step, by `joined`.
Bytes written(const std::vector<Step>& steps, bool joined, u8 flags) {
  TempDir dir;
  OutputFile out(dir.path("out.flv"), Existing::refuse, kNoInput);
  FlvWriter writer(out);
  writer.header(flags);
  for (const auto& [type, time, data] : steps) {
    const Tag tag{type, time, 0, data.data(), static_cast<u32>(data.size())};
    joined ? writer.join(tag) : writer.tag(tag);
  }
  writer.finish();
  return TempDir::read(dir.path("out.flv"));
}

TEST(FlvWriter, putsTheFlagsRightThatWereGuessed) {
  const Bytes picture{0x12, 1, 2}, sound{0x2F};
  EXPECT_EQ(written({{9, 0x1020304, picture}, {18, 0, {}}}, false, 5),
            FlvBuilder(9, 1).tag(9, 0x1020304, picture).tag(18, 0, Bytes{}).bytes());
  EXPECT_EQ(written({{8, 1, sound}, {9, 2, picture}}, false, 0),
            FlvBuilder(9, 5).tag(8, 1, sound).tag(9, 2, picture).bytes());
  EXPECT_EQ(written({}, false, 5), FlvBuilder(9, 0).bytes());
}

TEST(FlvWriter, joinedTagsMakeOneAggregateWithTheTimeOfItsFirst) {
  const Bytes picture{0x12, 1, 2}, sound{0x2F};
  Bytes entries = orv::test::tagBytes(9, 7, picture);
  const Bytes second = orv::test::tagBytes(8, 9, sound);
  entries.insert(entries.end(), second.begin(), second.end());
  EXPECT_EQ(written({{9, 7, picture}, {8, 9, sound}}, true, 5), FlvBuilder(9, 5).tag(22, 7, entries).bytes());
}

// A tag's size has 24 bits.
TEST(FlvWriter, anAggregateNeverOutgrowsATag) {
  const u32 half = flv::kMaxTagDataSize / 2 - flv::kTagOverhead;
  const Bytes data(flv::kMaxTagDataSize, 0x12);
  TempDir dir;
  OutputFile out(dir.path("out.flv"), Existing::refuse, kNoInput);
  FlvWriter writer(out);
  writer.header(1);
  for (const u32 size : {half, half, half, flv::kMaxTagDataSize}) writer.join({9, 1, 0, data.data(), size});
  writer.finish();

  const ReadOnlyFile file(dir.path("out.flv"));
  i64 at = flv::kFirstTagPosition;
  const u32 entry = half + flv::kTagOverhead;
  for (const auto& [type, size] :
       {std::pair<u8, u32>{22, 2 * entry}, {22, entry}, {9, flv::kMaxTagDataSize}}) {
    u8 header[flv::kTagHeaderSize] = {}, trailer[flv::kSizeFieldSize] = {};
    file.read(at, header, sizeof header);
    file.read(at + flv::kTagHeaderSize + size, trailer, sizeof trailer);
    EXPECT_EQ(header[0], type);
    EXPECT_EQ(flv::TagHeader{header}.dataSize(), size);
    EXPECT_EQ(flv::readU32(trailer), size + flv::kTagHeaderSize);
    at += size + flv::kTagOverhead;
  }
  EXPECT_EQ(at, static_cast<i64>(std::filesystem::file_size(dir.path("out.flv"))));
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
      {9, {0x27, 1}, false, false, "H.264"},
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
  const Bytes entry = orv::test::tagBytes(9, 7, Bytes{0x12, 1, 2});
  Bytes two = entry;
  two.insert(two.end(), entry.begin(), entry.end());
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
