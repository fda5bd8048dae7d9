// What an open and a refresh find out about a file.

#include "EngineTest.h"

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
  const FlvBuilder& three = threeTags();
  const Bytes junk = FlvBuilder(three).raw(Bytes(0x30000)).bytes();
  const struct {
    const char* name;
    Bytes file;
    i64 size;  // kRefused: open fails
    u32 duration = 0;
    Settings settings{};
  } kFiles[] = {
      {"version 2", with(three.bytes(), 3, 2), kRefused},
      {"not FLV", with(three.bytes(), 2, 'X'), kRefused},
      {"three tags", three.bytes(), 148, 140},
      {"header of 20 bytes", FlvBuilder(20).tag(kVideo, 7, 20).bytes(), 59, 7},
      {"header of 0 bytes", FlvBuilder(0).tag(kVideo, 7, 20).bytes(), kRefused},
      {"header of 4 GiB", FlvBuilder(0xFFFFFFFF).tag(kVideo, 7, 20).bytes(), kRefused},
      {"header that ends behind the file", FlvBuilder(0xFFFFFFF0).tag(kVideo, 7, 20).bytes(), kRefused},
      {"last trailing size wrong", FlvBuilder(three).trailing(50).bytes(), 48, 100},
      {"the same, strict", FlvBuilder(three).trailing(50).bytes(), 13, 0, {{"PlayIncompleteFLVs", "false"}}},
      {"size field of 8 before two tags",
       with(FlvBuilder().tag(kVideo, 1, 5).tag(kVideo, 2, 5).bytes(), 12, 8), 13},
      {"size field of 8 before three tags", with(three.bytes(), 12, 8), 148, 140},
      {"size field of 9 before three tags", with(three.bytes(), 12, 9), kRefused},
      {"junk behind", junk, 93, 120},
      {"the last tag but one just in reach", junk, 93, 120, {{"MaxBackFrameScan", "196707"}}},
      {"one byte too far", junk, 13, 0, {{"MaxBackFrameScan", "196706"}}},
      {"as far as may be set", junk, 13, 0, {{"MaxBackFrameScan", "131072"}}},
      {"less than may be set", junk, 93, 120, {{"MaxBackFrameScan", "131071"}}},
      {"less by another setting", junk, 93, 120, {{"MinSegSize", "262144"}, {"MaxBackFrameScan", "131072"}}},
      {"limit of the other search", junk, 93, 120, {{"MaxFrameScan", "131072"}}},
      {"time above 24 bits", FlvBuilder().tag(kVideo, 0x81020304, 1).bytes(), 29, 0x81020304},
      {"empty tag", FlvBuilder().tag(kAudio, 3, 0).bytes(), 28, 3},
      {"largest tag", FlvBuilder().tag(kVideo, 3, flv::kMaxTagDataSize).bytes(), 0x100001B, 3},
  };
  for (const auto& [name, file, size, duration, settings] : kFiles) {
    configure(settings);
    Stream stream = open(FileImage(file));
    ASSERT_EQ(bool(stream), size != kRefused) << name;
    EXPECT_TRUE(host.log.empty()) << name;
    if (!stream) continue;
    EXPECT_EQ(stream.size(), size) << name;
    EXPECT_EQ(stream.endPosition(), size > 13 ? size : 0) << name;
    EXPECT_EQ(stream.duration(), duration) << name;
    EXPECT_EQ(stream.type(), 5u) << name;
    EXPECT_EQ(bool(stream.atPosition(0)), size > 13) << name;
    EXPECT_EQ(bool(stream.atTime(duration)), size > 13) << name;
  }
}

TEST_F(ScanTest, missingFileLeavesTheHandleAlone) {
  void* handle = &host;
  for (const auto& [path, file] :
       std::map<std::string, std::string>{{kFile, "c:\\media\\film.flv.flv"}, {"\xFF\xFE", ".flv"}}) {
    EXPECT_EQ(adaptor().open(path.c_str(), 0, nullptr, handle), StreamLoadFailed);
    EXPECT_EQ(handle, &host);
    EXPECT_EQ(host.calls.back().path, file);  // the extension is always appended
    EXPECT_EQ(host.calls.back().flags, 0x8000);
    EXPECT_EQ(host.calls.back().mode, 0x180);
  }
}

TEST_F(ScanTest, attributes) {
  adaptor().setUserData(nullptr, nullptr);  // does nothing
  Stream stream = open(threeTags());
  host.file(kFile).modificationTime = 0x7654321089;
  u32 word = 0, size = 4;
  i64 bytes = 77;
  const auto ask = [&](u32 selector, void* value) {
    return adaptor().getAttribute(stream.handle, static_cast<AttrType_t>(selector), value, size);
  };
  EXPECT_TRUE(ask(1, &word) && word == 0x54321089);
  EXPECT_TRUE(ask(2, &word) && word == 140);
  EXPECT_TRUE(!ask(3, &bytes) && size == 8 && bytes == 77);
  EXPECT_TRUE(ask(3, &bytes) && bytes == 148);
  EXPECT_TRUE(!ask(0, &bytes) && !ask(5, &bytes) && size == 8);
  EXPECT_TRUE(!ask(4, &bytes) && size == 0);  // no metadata in this file
  EXPECT_LT(adaptor().getMemoryOverhead(stream.handle), 4096u);
  host.remove(kFile);
  EXPECT_TRUE(ask(1, &word) && word == 0);
}

TEST_F(ScanTest, growthIsSeenByTheFilesTimeAlone) {
  FlvBuilder film(threeTags());
  Stream stream = open(film);
  const i64 before = film.size();
  film.tag(kVideo, 200, 50);

  host.clockStep = 0;
  grow(film);
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

TEST_F(ScanTest, refreshThatFindsLessOrFails) {
  Stream stream = open(threeTags());
  ASSERT_TRUE(stream.atTime(120));
  host.cut(kFile, 13);  // No tag is left, and none is found by its time.
  EXPECT_EQ(stream.duration(), 0u);
  EXPECT_FALSE(stream.atTime(120));
  EXPECT_EQ(stream.size(), 13);

  host.put(kFile, threeTags().bytes());
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

}  // namespace
}  // namespace orv::test
