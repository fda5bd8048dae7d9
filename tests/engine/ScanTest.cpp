// What an open and a refresh find out about a file.

#include "EngineTest.h"
#include "ReferenceScan.h"

namespace orv::test {
namespace {

using ScanTest = EngineTest;

constexpr i64 kRefused = -1;

const FlvBuilder& threeTags() {
  static const FlvBuilder film = FlvBuilder().tag(kVideo, 100, 20).tag(kAudio, 120, 30).tag(kVideo, 140, 40);
  return film;
}

Bytes with(Bytes bytes, std::size_t at, u8 value) {
  bytes[at] = value;
  return bytes;
}

TEST_F(ScanTest, summary) {
  const FlvBuilder one = FlvBuilder().tag(kVideo, 7, 20);
  const FlvBuilder& three = threeTags();
  const Bytes torn(three.bytes().begin(), three.bytes().end() - 9);
  const Settings strict{{"PlayIncompleteFLVs", "false"}};
  const struct {
    const char* name;
    Bytes file;
    i64 size;  // kRefused: open fails
    i64 endPosition;
    u32 duration;
    Settings settings{};
  } kFiles[] = {
      {"no byte", {}, kRefused, 0, 0},
      {"header alone", FlvBuilder().bytes(), 13, 0, 0},
      {"version 2", with(three.bytes(), 3, 2), kRefused, 0, 0},
      {"not FLV", with(three.bytes(), 2, 'X'), kRefused, 0, 0},
      {"one tag", one.bytes(), 48, 48, 7},
      {"three tags", three.bytes(), 148, 148, 140},
      {"header of 20 bytes", FlvBuilder(20).tag(kVideo, 7, 20).bytes(), 59, 59, 7},
      {"header of 0 bytes", FlvBuilder(0).tag(kVideo, 7, 20).bytes(), kRefused, 0, 0},
      {"header of 4 GiB", FlvBuilder(0xFFFFFFFF).tag(kVideo, 7, 20).bytes(), kRefused, 0, 0},
      {"header that ends before the file by wrapping", FlvBuilder(0xFFFFFFFC).tag(kVideo, 7, 20).bytes(),
       kRefused, 0, 0},
      {"header that ends behind the file", FlvBuilder(0xFFFFFFF0).tag(kVideo, 7, 20).bytes(), kRefused, 0, 0},
      {"first tag of a type that is no frame", FlvBuilder().tag(1, 7, 20).bytes(), kRefused, 0, 0},
      {"the same, but allowed", FlvBuilder().tag(1, 7, 20).bytes(), 48, 48, 7, {{"FrameTypes", "9 1"}}},
      {"filter bit", FlvBuilder().tag(kVideo | flv::kFilterBit, 7, 20).bytes(), 48, 48, 7},
      {"first tag torn", {one.bytes().begin(), one.bytes().end() - 1}, kRefused, 0, 0},
      {"one tag and a torn one", FlvBuilder(one).raw({9, 0, 0, 9}).bytes(), 13, 0, 0},
      {"last tag torn", torn, 48, 48, 100},
      {"last tag torn, strict", torn, 13, 0, 0, strict},
      {"last trailing size wrong", FlvBuilder(three).trailing(50).bytes(), 48, 48, 100},
      {"last trailing size wrong, strict", FlvBuilder(three).trailing(50).bytes(), 13, 0, 0, strict},
      {"size field of 8 before two tags",
       with(FlvBuilder().tag(kVideo, 1, 5).tag(kVideo, 2, 5).bytes(), 12, 8), 13, 0, 0},
      {"size field of 8 before three tags", with(three.bytes(), 12, 8), 148, 148, 140},
      {"size field of 9 before three tags", with(three.bytes(), 12, 9), kRefused, 0, 0},
      {"time above 24 bits", FlvBuilder().tag(kVideo, 0x81020304, 1).bytes(), 29, 29, 0x81020304},
      {"empty tag", FlvBuilder().tag(kAudio, 3, 0).bytes(), 28, 28, 3},
      {"largest tag", FlvBuilder().tag(kVideo, 3, flv::kMaxTagDataSize).bytes(), 0x100001B, 0x100001B, 3},
  };
  for (const auto& file : kFiles) {
    configure(file.settings);
    Stream stream = open(FileImage(file.file));
    ASSERT_EQ(bool(stream), file.size != kRefused) << file.name;
    EXPECT_TRUE(host.log.empty()) << file.name;
    if (!stream) continue;
    EXPECT_EQ(stream.size(), file.size) << file.name;
    EXPECT_EQ(stream.endPosition(), file.endPosition) << file.name;
    EXPECT_EQ(stream.duration(), file.duration) << file.name;
    EXPECT_EQ(stream.type(), 5u) << file.name;
    EXPECT_EQ(bool(stream.atPosition(0)), file.endPosition > 0) << file.name;
    EXPECT_EQ(bool(stream.atTime(file.duration)), file.endPosition > 0) << file.name;
  }
}

TEST_F(ScanTest, missingFileLeavesTheHandleAlone) {
  Stream other = open(threeTags());
  void* handle = &host;
  EXPECT_EQ(other.adaptor.open("c:\\media\\film.flv", 0, nullptr, handle), StreamLoadFailed);
  EXPECT_EQ(handle, &host);
  EXPECT_EQ(host.calls.back().path, "c:\\media\\film.flv.flv");  // the extension is always appended
  EXPECT_EQ(host.calls.back().flags, 0x8000);
  EXPECT_EQ(host.calls.back().mode, 0x180);
  EXPECT_EQ(other.adaptor.open("\xFF\xFE", 0, nullptr, handle), StreamLoadFailed);
  EXPECT_EQ(host.calls.back().path, ".flv");
}

TEST_F(ScanTest, attributes) {
  Stream stream = open(threeTags());
  host.file(kFile).modificationTime = 0x7654321089;
  u32 word = 0, size = 4;
  const auto ask = [&](u32 selector, void* value) {
    return stream.adaptor.getAttribute(stream.handle, static_cast<AttrType_t>(selector), value, size);
  };
  EXPECT_TRUE(ask(1, &word));
  EXPECT_EQ(word, 0x54321089u);
  EXPECT_TRUE(ask(2, &word));
  EXPECT_EQ(word, 140u);
  i64 bytes = 77;
  EXPECT_FALSE(ask(3, &bytes));
  EXPECT_EQ(size, 8u);
  EXPECT_EQ(bytes, 77);
  EXPECT_TRUE(ask(3, &bytes));
  EXPECT_EQ(bytes, 148);
  EXPECT_FALSE(ask(0, &bytes) || ask(5, &bytes));
  EXPECT_EQ(size, 8u);
  EXPECT_FALSE(ask(4, &bytes));  // no metadata in this file
  EXPECT_EQ(size, 0u);
  host.remove(kFile);
  EXPECT_TRUE(ask(1, &word));
  EXPECT_EQ(word, 0u);
}

// Cut after each byte: all tags but the last whole one are seen, unless the cut falls between two tags.
TEST_F(ScanTest, tornEverywhere) {
  const FlvBuilder film =
      FlvBuilder().interleaved(2).tag(kAudio, 90, 0).tag(kVideo, 120, 9).tag(kVideo, 140, 33);
  const auto tags = film.tags();
  for (u32 cut = 0; cut <= film.size(); ++cut) {
    std::size_t whole = 0;
    while (whole < tags.size() && tags[whole].end() <= cut) ++whole;
    const bool clean = cut == (whole ? tags[whole - 1].end() : 13);
    Stream stream = open(FileImage(Bytes(film.bytes().begin(), film.bytes().begin() + cut)));
    ASSERT_EQ(bool(stream), whole > 0 || cut == 13) << cut;
    if (!stream) continue;
    const std::size_t seen = clean ? whole : whole - 1;
    ASSERT_EQ(stream.size(), seen ? tags[seen - 1].end() : 13) << cut;
    ASSERT_EQ(stream.duration(), seen ? tags[seen - 1].time : 0) << cut;
    auto expected = messagesOf(film);
    expected.resize(seen);
    bool good = true;
    const auto all = seen ? unpack(stream.load(*stream.atPosition(0), &good)) : std::vector<Message>{};
    ASSERT_TRUE(good && all == expected) << cut;
  }
  EXPECT_TRUE(host.log.empty());
}

TEST_F(ScanTest, limitOfTheSearchForTheLastTag) {
  const FlvBuilder film = FlvBuilder(threeTags()).raw(Bytes(0x30000));
  const struct {
    Settings settings;
    i64 size;
  } kLimits[] = {
      {{}, 93},
      {{{"MaxBackFrameScan", "131072"}}, 13},
      {{{"MaxBackFrameScan", "196706"}}, 13},  // the tag before the last is one byte too far
      {{{"MaxBackFrameScan", "196707"}}, 93},
      {{{"MaxBackFrameScan", "131071"}}, 93},  // below the least value: the default stays
      {{{"MinSegSize", "262144"}, {"MaxBackFrameScan", "131072"}}, 93},
      {{{"MaxFrameScan", "131072"}}, 93},
  };
  for (const auto& limit : kLimits) {
    configure(limit.settings);
    Stream stream = open(film);
    EXPECT_EQ(stream.size(), limit.size) << testing::PrintToString(limit.settings);
  }
}

TEST_F(ScanTest, growthIsSeenByTheFilesTimeAlone) {
  FlvBuilder film(threeTags());
  Stream stream = open(film);
  const i64 before = film.size();
  film.tag(kVideo, 200, 50);
  const Bytes added(film.bytes().begin() + before, film.bytes().end());

  host.clockStep = 0;
  host.append(kFile, added);
  EXPECT_EQ(stream.size(), before);  // the time did not move

  host.clockStep = i64{1} << 32;
  host.overwrite(kFile, 4, {5});
  EXPECT_EQ(stream.size(), before);  // its low 32 bits did not

  host.clockStep = 1;
  host.overwrite(kFile, 4, {13});
  EXPECT_EQ(stream.duration(), 140u);  // looks again, but no further than the old end
  EXPECT_EQ(stream.type(), 5u);
  EXPECT_EQ(stream.endPosition(), film.size());
  EXPECT_EQ(stream.duration(), 200u);
  EXPECT_EQ(stream.type(), 13u);  // not from what the read cache held

  host.overwrite(kFile, before + 6, {99});  // the last tag's time, in place
  EXPECT_EQ(stream.duration(), 99u);
  EXPECT_EQ(stream.size(), film.size());
  EXPECT_EQ(stream.duration(), 99u);

  host.clearCalls();
  EXPECT_EQ(stream.size() + stream.endPosition() + stream.duration(), 2 * film.size() + 99);
  EXPECT_EQ(host.calls.size(), 3u);
  EXPECT_EQ(host.count(Op::stat), 3u);
}

TEST_F(ScanTest, refreshThatFails) {
  Stream stream = open(threeTags());
  host.overwrite(kFile, 13, {1});  // the first tag is none any more
  EXPECT_EQ(stream.size(), 0);
  EXPECT_EQ(stream.size(), 148);  // what the failed scan left: it isn't tried again
  host.remove(kFile);
  EXPECT_EQ(stream.size(), 0);
  EXPECT_EQ(stream.duration(), 0u);
  EXPECT_FALSE(stream.atTime(120));
}

TEST_F(ScanTest, descriptorZeroIsADescriptor) {
  Stream stream = open(threeTags());
  host.firstDescriptor = 0;
  ASSERT_TRUE(stream.atTime(120));
  EXPECT_EQ(unpack(stream.load(*stream.atTime(120))), messagesOf(threeTags()));
  host.append(kFile, {});
  EXPECT_EQ(stream.size(), 13);  // but the search for the last tag takes it for none
}

// A fixed handful of calls, whatever the length.
TEST_F(ScanTest, budgetOfAnOpen) {
  for (const i64 count : {520, 533'000, 34'100'000}) {  // 1 MiB, 1 GiB, 64 GiB
    host.put(kFile, uniformFlv(count, 2000, 20));
    host.clearCalls();
    Stream stream = open();
    ASSERT_TRUE(stream);
    EXPECT_LE(host.calls.size(), 8u);
    EXPECT_LE(host.bytesRead(), 900 * 1024);
    EXPECT_EQ(stream.size(), 13 + count * 2015);
    EXPECT_EQ(stream.duration(), static_cast<u32>(count - 1) * 20);
  }
}

}  // namespace
}  // namespace orv::test
