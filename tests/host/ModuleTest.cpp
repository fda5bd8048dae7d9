// The module's context, and what it delivers held against the file.

#include <array>

#include "Movie.h"
#include "host/module/SegmentWalk.h"
#include "host/module/TagVerifier.h"

namespace orv::host::test {
namespace {

TEST(HostContext, givesATextToWhoeverBringsRoomForIt) {
  Settings settings;
  for (const char* text : {"ReadSize=1", "ReadSize=32768", "FrameTypes="}) settings.assign(text);
  settings.setDefault("ReadSize", "0");
  settings.setDefault("EnableAggMsgs", "false");
  PosixFileService files;
  HostContext context(settings, files, {});
  char block[8] = "?", *none = nullptr;
  const auto ask = [&](const char* key, u32 size, char* buffer) {
    return context.getConfigValue(key, &buffer, size);
  };
  EXPECT_EQ(ask("ReadSize", 5, block), 6);
  EXPECT_EQ(ask("ReadSize", 64, none), 6);
  EXPECT_STREQ(block, "?");
  for (const auto& [key, text] :
       {std::pair{"ReadSize", "32768"}, {"EnableAggMsgs", "false"}, {"FrameTypes", ""}}) {
    EXPECT_EQ(ask(key, static_cast<u32>(std::strlen(text)) + 1, block), 0);
    EXPECT_STREQ(block, text);
  }
  EXPECT_LT(ask("MaxSegSize", 8, block), 0);
}

TEST(HostContext, tellsEachLineOnceWithTheNativeName) {
  std::vector<std::string> lines;
  PosixFileService files;
  HostContext context({}, files, [&](const std::string& line) { lines.push_back(line); });
  context.nameFile("\\x\\f%C3.flv", "/x/f\xC3.flv");
  for (int i = 0; i < 3; ++i)
    context.logMessage("File contains bad data : \\x\\f%C3.flv (a.cpp:1)", kLogBadData, 1);
  context.logMessage("careful", kLogWarning, 1);
  EXPECT_EQ(lines, (std::vector<std::string>{"bad data: File contains bad data : /x/f\xC3.flv (a.cpp:1)",
                                             "warning: careful"}));
}

const Bytes kEmptyFrame{0x02, 5};  // A frame type of 0: never delivered.

class TagVerifierTest : public testing::Test {
 protected:
  // The faults found if `sent` is what a load of the file delivers.
  u64 faults(const TagList& sent) {
    TagVerifier verifier(stream);
    verifier.beginSegment({0, file.size() - 1, 0, 31});
    for (const auto& s : sent) {
      verifier.check({s.type, s.time, s.data.data(), static_cast<u32>(s.data.size())});
    }
    verifier.endSegment();
    verifier.endFile();
    return verifier.faults();
  }
  orv::test::Message tag(std::size_t i) const { return tagOf(file, i); }

  TempDir dir;
  FlvBuilder file =
      FlvBuilder().tag(8, 0, 30).tag(9, 10, 40).tag(9, 20, kEmptyFrame).tag(8, 0, 50).tag(9, 30, 60);
  Session session{{FLV_MODULE_PATH, {}, false}};
  Stream stream = session.open(dir.file("f.flv", file.bytes()));
};

TEST_F(TagVerifierTest, takesWhatTheModuleMayDeliver) {
  const Bytes joined = join(tagBytes(9, 10, tag(1).data), tagBytes(9, 30, tag(4).data));
  Bytes unfinished = joined;  // The last size field of an aggregate is undefined.
  unfinished.back() ^= 1;
  EXPECT_EQ(faults({tag(0), tag(1), tag(3), tag(4)}), 0u);
  EXPECT_EQ(faults({tag(0), tag(3), {22, 10, joined}}), 0u);  // A time of 0 overtakes.
  EXPECT_EQ(faults({tag(0), tag(3), {22, 10, unfinished}}), 0u);
}

TEST_F(TagVerifierTest, findsEachWayOfDeliveringWrongly) {
  auto changed = tag(4), late = tag(4), retyped = tag(4), cut = tag(4);
  changed.data[59] ^= 1;
  ++late.time;
  retyped.type = 8;
  cut.data.pop_back();
  Bytes entry = tagBytes(9, 30, tag(4).data);
  entry[10] = 1;  // The stream id.
  const struct {
    const char* name;
    TagList sent;
  } kWrong[] = {
      {"a changed byte", {tag(0), tag(1), tag(3), changed}},
      {"another time", {tag(0), tag(1), tag(3), late}},
      {"another type", {tag(0), tag(1), tag(3), retyped}},
      {"a byte less", {tag(0), tag(1), tag(3), cut}},
      {"the first tag missing", {tag(1), tag(3), tag(4)}},
      {"the last tag missing", {tag(0), tag(1), tag(3)}},
      {"a tag twice", {tag(0), tag(1), tag(3), tag(4), tag(4)}},
      {"the wrong order", {tag(0), tag(4), tag(3), tag(1)}},
      {"nothing", {}},
      {"another stream id", {tag(0), tag(1), tag(3), {22, 30, entry}}},
      {"a torn aggregate", {tag(0), tag(1), tag(3), tag(4), {22, 30, Bytes(5)}}},
  };
  for (const auto& wrong : kWrong) EXPECT_GT(faults(wrong.sent), 0u) << wrong.name;
}

// Long tags, sound between them, a stretch of short ones, and a tag whose bytes are lost.
TEST(SegmentWalk, cutsLongTagsWhereTheModuleDoes) {
  FlvBuilder film;
  for (u32 i = 0; i < 52; ++i) {
    const u32 size = i % 20 < 12 ? 40'000 + i * i * 397 % 700'000 : 900;
    film.tag(9, i * 40, size).tag(8, i * 40 + 5, 300);
  }
  Bytes bytes = film.bytes();
  const auto lost = bytes.begin() + film.tags()[90].position;
  std::fill(lost, lost + 50, u8{0});
  const TempDir dir;
  Session session{{FLV_MODULE_PATH, {}, false}};
  Stream stream = session.open(dir.file("f.flv", bytes));
  const auto cuts = [&](SegmentWalk::Ask ask) {
    std::vector<std::array<i64, 4>> all;
    SegmentWalk walk(stream, 0, ask);
    while (const auto bounds = walk.next())
      all.push_back({bounds->startPosition, bounds->endPosition, bounds->startTime, bounds->endTime});
    return all;
  };
  const auto byTheModule = cuts(SegmentWalk::Ask::module);
  EXPECT_GT(byTheModule.size(), 20u);
  EXPECT_EQ(cuts(SegmentWalk::Ask::longTags), byTheModule);
}

}  // namespace
}  // namespace orv::host::test
