// Metadata that other tools wrote (tests/data/make.sh): 16 by 16 pixels, 10 frames a second, 200 seconds,
// each frame a key frame.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>

#include "ServerTest.h"

namespace orv::test {
namespace {

constexpr u32 kFrames = 2000;

// The script data of a file that holds one tag.
Bytes scriptData(const std::string& name) {
  std::ifstream in(FLV_TEST_DATA "/" + name, std::ios::binary);
  Bytes bytes{std::istreambuf_iterator<char>(in), {}};
  if (bytes.size() < flv::kFirstTagPosition + flv::kTagOverhead) return {};
  return {bytes.begin() + flv::kFirstTagPosition + flv::kTagHeaderSize, bytes.end() - flv::kSizeFieldSize};
}

TEST(ForeignMetadata, isReadAndSurvivesRewriting) {
  const struct {
    const char* file;
    u32 entries;
    bool hasIndex;
    const char* key;
    const char* value;
  } kRows[] = {
      {"ffmpeg.flv", 7, false, "framerate", "10"},
      {"ffmpeg-index.flv", 19, true, "hasKeyframes", "true"},
      {"yamdi.flv", 20, true, "creator", "\"yamdi\""},
      {"flvmeta.flv", 22, true, "title", "\"Example\""},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.file);
    const Bytes bytes = scriptData(row.file);
    const KTCommand command = commandOf(flv::kTypeDataAmf0, bytes, true);
    EXPECT_EQ(command.name().text(), "onMetaData");
    EXPECT_EQ(command.argCount(), 1U);
    const KTDataArray* const metadata = command.arg(0).asArray();
    ASSERT_TRUE(metadata);
    EXPECT_EQ(metadata->size(), row.entries);
    EXPECT_EQ(metadata->find("width").toInt(), 16);
    EXPECT_EQ(metadata->find("VideoCodecId").toInt(), 2);
    EXPECT_NEAR(metadata->find("duration").toDouble(), 200, 0.2);
    EXPECT_EQ(describe(metadata->find(row.key)), row.value);

    const KTDataArray* const index = metadata->find("keyframes").asArray();
    ASSERT_EQ(index != nullptr, row.hasIndex);
    for (u32 i = 0; index && i < kFrames; ++i) {
      const KTDataArray& times = *index->find("times").asArray();
      const KTDataArray& positions = *index->find("filepositions").asArray();
      ASSERT_EQ(times.size(), kFrames);
      ASSERT_EQ(positions.size(), kFrames);
      ASSERT_NEAR(times.valueAt(i).toDouble(), i * 0.1, 0.0011);
      ASSERT_LT(i ? positions.valueAt(i - 1).toInt() : 0, positions.valueAt(i).toInt());
    }

    const KTMessagePtr message = KTCommand(command).toDataMessage();
    const KTCommand again(message.get(), true);
    const std::string original = describe(command.arg(0));  // Its dense arrays come back by name.
    EXPECT_EQ(describe(again.arg(0)), std::regex_replace(original, std::regex("\\[6\\]"), "[8]"));
  }
}

}  // namespace
}  // namespace orv::test
