#include <gmock/gmock.h>
#include <sys/resource.h>

#include <nlohmann/json.hpp>

#include "Program.h"
#include "support/AmfText.h"
#include "support/FlvBuilder.h"

namespace orv::host {
namespace {

using nlohmann::json;
using orv::test::bytesOf;
using orv::test::FlvBuilder;
using test::Bytes;
using test::eventually;
using test::flvhost;
using test::Outcome;
using test::Running;
using test::TempDir;
using testing::HasSubstr;

constexpr u8 kRecordedFlags = 13;  // Audio, video, and the module's own mark for all else.

Bytes metadata(const std::string& entries = "") {
  return bytesOf("02 000A'onMetaData' 08 00000000" + entries + "000009");
}

// H.263 and MP3 behind metadata; times from `first` on.
FlvBuilder liveStream(u32 tags = 100, u32 first = 0) {
  FlvBuilder stream(flv::kFileHeaderSize, kRecordedFlags);
  stream.tag(18, first, metadata("0005'width' 00 4074000000000000"));
  for (u32 i = 0; i < tags; ++i) {
    Bytes data = orv::test::payload(i % 3 ? 9 : 8, 700, i);
    data[0] = i % 3 ? 0x22 : 0x2F;
    stream.tag(i % 3 ? 9 : 8, first + 20 * i, data);
  }
  return stream;
}

Bytes join(const Bytes& a, const Bytes& b, std::size_t from = 0) {
  Bytes all = a;
  all.insert(all.end(), b.begin() + static_cast<long>(from), b.end());
  return all;
}

class RecordCommandTest : public testing::Test {
 protected:
  TempDir dir;
  const std::string file = dir.path("live.flv");
  const std::string copy = dir.path("copy.flv");

  Outcome record(const Bytes& input, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"record", file});
    return flvhost(more, input);
  }
};

TEST_F(RecordCommandTest, recordsEachTagAsItCameAndKeepsACopy) {
  const FlvBuilder stream = liveStream(3000);
  Running run({"record", file, "--backup", copy, "--flush-every", "20ms"});
  for (std::size_t at = 0; at < stream.bytes().size(); at += 40'009) {
    const auto begin = stream.bytes().begin() + static_cast<long>(at);
    run.feed({begin, begin + std::min<long>(40'009, stream.bytes().end() - begin)});
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const Outcome result = run.wait();
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("3001 tags, 2100037 bytes of data, 00:00:00.000 to 00:00:59.980, in "));
  EXPECT_TRUE(TempDir::read(file) == stream.bytes());
  EXPECT_TRUE(TempDir::read(copy) == stream.bytes());
}

TEST_F(RecordCommandTest, saysWhatItCantRecordAndGoesOn) {
  const Bytes avc{0x17, 1, 0, 0, 0, 9}, aac{0xAF, 1, 9}, h263{0x12, 9}, mp3{0x2F, 9};
  const Bytes good = liveStream().bytes();
  const Bytes entries = join(orv::test::tagBytes(9, 7, h263), orv::test::tagBytes(8, 9, mp3));
  Bytes torn = entries;
  torn.resize(torn.size() - 10);
  const auto stream = [] { return FlvBuilder(flv::kFileHeaderSize, 0); };
  const auto flagged = [](u8 flags) { return FlvBuilder(flv::kFileHeaderSize, flags); };
  const struct {
    Bytes input;
    int exitCode;
    const char* line;
    Bytes recorded;  // Empty: no file is left.
  } kInputs[] = {
      {{}, 1, "standard input: is empty (0 bytes)", {}},
      {{'R', 'I', 'F', 'F', 0, 0, 0, 0, 0}, 1, "isn't an FLV file: it starts with \"RIFF\"", {}},
      {stream().bytes(), 1, "nothing could be recorded, and no file is left", {}},
      {FlvBuilder(0xFFFFFFFF).bytes(), 1, "ends inside its header", {}},
      {join(good, {9, 0, 9}), 0, "ends inside a tag; 3 bytes of it came and are left out", good},
      {join(good, Bytes(50, 0xFF)), 1, "is damaged: no tag starts at byte ", good},
      {stream().tag(9, 0, avc).tag(8, 0, aac).tag(9, 40, avc).bytes(),
       1,
       "nothing could be recorded, and no file is left; refused: 1 AAC, 2 H.264",
       {}},
      {stream().tag(18, 0, metadata()).tag(9, 0, avc).bytes(), 1, "refused: 1 H.264", {}},
      {stream().tag(9, 5, avc).tag(8, 5, mp3).bytes(), 0, "-c:v flv1 -c:a libmp3lame",
       flagged(4).tag(8, 5, mp3).bytes()},
      {stream().tag(3, 0, mp3).tag(8, 5, mp3).bytes(), 0, "refused: 1 of type 3",
       flagged(4).tag(8, 5, mp3).bytes()},
      {stream().tag(18, 0, bytesOf("02 000A'onMetaData' 03 0001'a' 1E")).tag(8, 5, mp3).bytes(), 0,
       "refused: 1 unreadable metadata", flagged(4).tag(8, 5, mp3).bytes()},
      {stream().tag(22, 7, entries).bytes(), 0, "2 tags, 4 bytes",
       flagged(5).tag(9, 7, h263).tag(8, 9, mp3).bytes()},
      {stream().tag(22, 7, torn).bytes(), 0, "refused: 1 torn aggregates",
       flagged(1).tag(9, 7, h263).bytes()},
  };
  for (const auto& c : kInputs) {
    const Outcome result = record(c.input, {"--backup", copy});
    EXPECT_EQ(result.exitCode, c.exitCode) << c.line << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.line));
    EXPECT_EQ(std::filesystem::exists(file), !c.recorded.empty()) << c.line;
    EXPECT_TRUE(TempDir::read(file) == c.recorded) << c.line;
    EXPECT_TRUE(TempDir::read(copy) == c.recorded) << c.line;
    std::filesystem::remove(file);
    std::filesystem::remove(copy);
  }
}

TEST_F(RecordCommandTest, whatExistsIsTouchedOnlyAsAskedFor) {
  const Bytes old = liveStream(50).bytes(), more = liveStream(50, 5000).bytes();
  const Bytes both = join(old, more, 13), alien{'R', 'I', 'F', 'F'};
  const Bytes shorter(old.begin(), old.end() - 100), none;
  const struct {
    const char* name;
    std::vector<std::string> args;
    Bytes file, copy;  // Before. Empty: not there.
    int exitCode;
    const char* line;
    Bytes fileAfter, copyAfter;
  } kCases[] = {
      {"refuse", {}, old, none, 2, "exists; --append goes on behind it", old, none},
      {"refuse the copy", {}, none, old, 2, "holds bytes; --overwrite replaces it", none, old},
      {"overwrite", {"--overwrite"}, old, old, 0, "51 tags", more, more},
      {"overwrite nothing", {"--overwrite"}, none, none, 0, "51 tags", more, more},
      {"overwrite an alien", {"--overwrite"}, alien, none, 1, "isn't an FLV file", alien, none},
      {"overwrite an alien copy", {"--overwrite"}, old, alien, 2, "isn't an FLV file; it isn't", old, alien},
      {"append", {"--append"}, old, none, 0, "51 tags", both, both},
      {"append, with a copy", {"--append"}, old, old, 0, "51 tags", both, both},
      {"append, with an old copy", {"--append"}, old, shorter, 2, "isn't equal to", old, shorter},
      {"append to nothing", {"--append"}, none, none, 0, "51 tags", more, more},
      {"append to an alien", {"--append"}, alien, none, 1, "isn't an FLV file", alien, none},
      {"append to a torn file",
       {"--append"},
       shorter,
       none,
       0,
       "hold no whole tag that could be told",
       join(shorter, more, 13),
       join(shorter, more, 13)},
      {"both", {"--append", "--overwrite"}, old, none, 2, "excludes", old, none},
  };
  for (const auto& c : kCases) {
    for (const auto& [name, bytes] : {std::pair(file, c.file), std::pair(copy, c.copy)}) {
      std::filesystem::remove(name);
      if (!bytes.empty())
        std::ofstream(name).write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
    }
    std::vector<std::string> args = c.args;
    args.insert(args.end(), {"--backup", copy});
    const Outcome result = record(more, args);
    EXPECT_EQ(result.exitCode, c.exitCode) << c.name << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.line)) << c.name;
    EXPECT_TRUE(TempDir::read(file) == c.fileAfter) << c.name;
    EXPECT_TRUE(TempDir::read(copy) == c.copyAfter) << c.name;
  }
}

TEST_F(RecordCommandTest, anEncoderThatFailsToStartCostsNothing) {
  const Bytes old = liveStream().bytes();
  dir.file("live.flv", old);
  EXPECT_EQ(record({}, {"--overwrite"}).exitCode, 1);
  EXPECT_TRUE(TempDir::read(file) == old);
}

TEST_F(RecordCommandTest, callsThatCantBeServedEndWithTwo) {
  dir.file("there.flv", {1});
  std::filesystem::create_symlink(copy, dir.path("link.flv"));
  const struct {
    std::vector<std::string> args;
    const char* line;
  } kCalls[] = {
      {{"--backup", file}, "is the recorded file itself"},
      {{"--backup", dir.path("./x/../live.flv")}, "is the recorded file itself"},
      {{"--backup", "/dev/null"}, "isn't a regular file"},
      {{"--backup", dir.path("no/where.flv")}, "No such file"},
      {{"--flush-every", "soon"}, "isn't a time"},
  };
  for (const auto& call : kCalls) {
    const Outcome result = record(liveStream().bytes(), call.args);
    EXPECT_EQ(result.exitCode, 2) << call.line;
    EXPECT_THAT(result.err, HasSubstr(call.line));
    EXPECT_FALSE(std::filesystem::exists(file)) << call.line;
  }
  EXPECT_EQ(flvhost({"record", "/dev/null"}, liveStream().bytes()).exitCode, 2);
  EXPECT_EQ(flvhost({"record", dir.path("there.flv") + "/x.flv"}, liveStream().bytes()).exitCode, 2);
}

// A second one would tear the tags of the first.
TEST_F(RecordCommandTest, oneFileIsRecordedByOneAtATime) {
  const FlvBuilder stream = liveStream();
  Running first({"record", file});
  first.feed(stream.bytes());
  ASSERT_TRUE(eventually([&] { return TempDir::read(file).size() > 100; }));
  for (const char* onto : {"--append", "--overwrite"}) {
    const Outcome second = record(stream.bytes(), {onto});
    EXPECT_EQ(second.exitCode, 2);
    EXPECT_THAT(second.err, HasSubstr("is being recorded by another flvhost"));
  }
  EXPECT_EQ(first.wait().exitCode, 0);
  EXPECT_TRUE(TempDir::read(file) == stream.bytes());
}

TEST_F(RecordCommandTest, flushesThoughNoMoreComesAndEndsWholeOnASignal) {
  const FlvBuilder stream = liveStream();
  const Bytes last = orv::test::tagBytes(8, 5000, {0x2F, 1, 2, 3});
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    Running run({"record", file, "--overwrite", "--flush-every", "50ms"});
    run.feed(stream.bytes());
    ASSERT_TRUE(eventually([&] { return TempDir::read(file) == stream.bytes(); })) << number;
    run.feed(join(last, {9, 0, 0}));  // And a part of a tag.
    ASSERT_TRUE(eventually([&] { return TempDir::read(file) == join(stream.bytes(), last); })) << number;
    run.feed({5, 0, 0});
    run.signal(number);
    const Outcome result = run.wait();
    EXPECT_EQ(result.exitCode, 0) << number << result.err;
    EXPECT_TRUE(TempDir::read(file) == join(stream.bytes(), last)) << number;
  }
}

TEST_F(RecordCommandTest, aSignalFlushesWhatIsStaged) {
  const FlvBuilder stream = liveStream();
  Running run({"record", file, "--flush-every", "1:00:00"});
  run.feed(stream.bytes());
  ASSERT_TRUE(eventually([&] { return TempDir::read(file).size() == 13; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(TempDir::read(file).size(), 13u);
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait().exitCode, 0);
  EXPECT_TRUE(TempDir::read(file) == stream.bytes());
}

TEST_F(RecordCommandTest, aFullDiskIsToldAtOnceAndEndsTheRecording) {
  const FlvBuilder stream = liveStream(1000);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit tight{200'000, old.rlim_max};
  setrlimit(RLIMIT_FSIZE, &tight);
  Running run({"record", file, "--flush-every", "10ms"});
  setrlimit(RLIMIT_FSIZE, &old);
  const Bytes first(stream.bytes().begin(), stream.bytes().begin() + 13 + 52 + 100 * 715);
  run.feed(first);
  ASSERT_TRUE(eventually([&] { return TempDir::read(file).size() == first.size(); }));
  run.feed({stream.bytes().begin() + static_cast<long>(first.size()), stream.bytes().end()});
  const Outcome result = run.wait();
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.err, HasSubstr("live.flv: only "));
  EXPECT_THAT(result.err, HasSubstr("File too large"));
  EXPECT_THAT(result.err, HasSubstr("recording ends here"));
  const Bytes left = TempDir::read(file);
  ASSERT_EQ(left.size(), 200'000u);
  EXPECT_TRUE(std::equal(left.begin() + 13, left.end(), stream.bytes().begin() + 13));
  EXPECT_GT(json::parse(flvhost({"info", "--json", file}).out)["files"][0]["playableEnd"], first.size());
}

TEST_F(RecordCommandTest, reservedMetadataIsBroughtUpToDate) {
  const Bytes h263{0x12, 1}, mp3{0x2F, 1};
  const std::string amf3 = "00 02 000A'onMetaData' 11 09 01 0B'width' 05 4074000000000000 01";
  const struct {
    const char* name;
    u8 type;
    Bytes metadata;  // Empty: the stream has none.
    json claims;
  } kStreams[] = {
      {"none",
       0,
       {},
       {{"duration", 4.0}, {"videocodecid", 2.0}, {"audiocodecid", 2.0}, {"canSeekToEnd", true}}},
      {"AMF0",
       18,
       metadata("0005'width' 00 4074000000000000 0008'Duration' 02 0003'5.0'"),
       {{"width", 320.0},
        {"Duration", 4.0},
        {"videocodecid", 2.0},
        {"audiocodecid", 2.0},
        {"canSeekToEnd", true}}},
      {"AMF3",
       15,
       bytesOf(amf3),
       {{"width", 320.0},
        {"duration", 4.0},
        {"videocodecid", 2},
        {"audiocodecid", 2},
        {"canSeekToEnd", true}}},
  };
  for (const auto& s : kStreams) {
    FlvBuilder stream;
    stream.tag(8, 0, mp3);
    if (s.type) stream.tag(s.type, 0, s.metadata);
    stream.tag(9, 0, h263).tag(9, 4000, h263);
    const Outcome result = record(stream.bytes(), {"--reserve-metadata", "--overwrite"});
    EXPECT_EQ(result.exitCode, 0) << s.name << result.err;
    const json records = json::parse(flvhost({"meta", file}).out)["records"];
    ASSERT_EQ(records.size(), 1u) << s.name;
    EXPECT_EQ(records[0]["values"][0]["entries"], s.claims) << s.name;
    EXPECT_EQ(json::parse(flvhost({"info", "--count", "--json", file}).out)["files"][0]["tags"]["messages"],
              3);
  }
}

TEST_F(RecordCommandTest, metadataThatCantBeBroughtUpToDateStaysAsItCame) {
  const Bytes kPayloads[] = {bytesOf("02 000A'onMetaData' 05"), metadata("0001'a' 0C FFFFFFFF"),
                             join(metadata(), {5})};
  for (const Bytes& payload : kPayloads) {
    const Bytes stream = FlvBuilder(9, 12).tag(18, 0, payload).tag(8, 10, Bytes{0x2F}).bytes();
    const Outcome result = record(stream, {"--reserve-metadata", "--overwrite"});
    EXPECT_THAT(result.err, HasSubstr("can't be brought up to date"));
    EXPECT_TRUE(TempDir::read(file) == stream);
  }
}

}  // namespace
}  // namespace orv::host
