#include <gmock/gmock.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Program.h"
#include "support/AmfText.h"
#include "support/FlvBuilder.h"

namespace orv::host {
namespace {

using nlohmann::json;
using orv::test::BuiltTag;
using orv::test::FlvBuilder;
using test::Bytes;
using test::flvhost;
using test::Outcome;
using test::TempDir;
using testing::HasSubstr;

Bytes text(const std::string& s) {
  return {s.begin(), s.end()};
}

std::string str(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

Bytes front(const FlvBuilder& file, i64 size) {
  return {file.bytes().begin(), file.bytes().begin() + size};
}

// A second between key frames, 50 tags to a second, three segments; sound sets in at once.
FlvBuilder movie() {
  FlvBuilder file;
  for (u32 i = 0; i < 700; ++i) {
    Bytes data = orv::test::payload(i % 5 ? 9 : 8, 1000, i);
    if (i % 5) data[0] = i % 50 == 1 ? 0x12 : 0x22;
    file.tag(i % 5 ? 9 : 8, i * 20, data);
  }
  return file;
}

TEST(Flvhost, saysInOneLineWhatIsWrongWithAFile) {
  const FlvBuilder good = movie();
  FlvBuilder alien = FlvBuilder();
  alien.tag(7, 0, 10);
  const struct {
    const char* name;
    Bytes bytes;
    const char* line;
  } kFiles[] = {
      {"empty", {}, "is empty (0 bytes)"},
      {"zeros", Bytes(5000), "isn't an FLV file: it starts with \"\\x00\\x00\\x00\\x00\""},
      {"riff", text("RIFF1234"), "isn't an FLV file: it starts with \"RIFF\""},
      {"two bytes", text("FL"), "ends inside its header, after 2 bytes"},
      {"version 2", text(std::string("FLV\x02\x05\0\0\0\x09\0\0\0\0", 13)), "has FLV version 2"},
      {"no header size", front(good, 6), "ends inside its header, after 6 bytes"},
      {"header of 4 GiB", FlvBuilder(0xFFFFFFFF).interleaved(3).bytes(),
       "has a header that claims 4294967295 bytes"},
      {"header of 0", FlvBuilder(0).interleaved(3).bytes(), "has a header that claims 0 bytes"},
      {"no tags", front(good, 13), "has a header and no tags"},
      {"half a tag header", front(good, 20), "ends inside its first tag"},
      {"half a tag", front(good, 200),
       "has a first tag of 1000 bytes at byte 13 that doesn't fit the 200 bytes"},
      {"alien tag", alien.bytes(), "has no valid first tag: type 7 at byte 13"},
      {"torn second tag", front(good, 1500), "has nothing playable"},
  };
  TempDir dir;
  for (const auto& f : kFiles) {
    const std::string file = dir.file("f.flv", f.bytes);
    for (const char* command : {"segments", "play", "demo"}) {
      const Outcome result = flvhost({command, file});
      EXPECT_EQ(result.exitCode, 1) << f.name << command;
      EXPECT_THAT(result.err, testing::StartsWith("flvhost: " + file + ": " + f.line)) << f.name << command;
      EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
  }
}

TEST(Flvhost, callsThatCantBeServedEndWithTwo) {
  TempDir dir;
  const std::string file = dir.file("f.flv", movie().bytes());
  const std::string taken = dir.file("taken.flv", {1});
  ASSERT_EQ(::symlink(file.c_str(), dir.path("link.flv").c_str()), 0);
  const struct {
    std::vector<std::string> args;
    const char* line;
  } kCalls[] = {
      {{"info", dir.path("missing.flv")}, "No such file"},
      {{"info", dir.path("")}, "is a directory"},
      {{"info", "/dev/null"}, "isn't a regular file"},
      {{"info", "a\\b.flv"}, "No such file"},
      {{"info", dir.file("a\\b.flv", {1})}, "backslash"},
      {{"info"}, "FILE is required"},
      {{"fly", file}, "fly; see flvhost --help"},
      {{}, "a command is wanted"},
      {{"seek", file, "1:99"}, "1:99: isn't a time"},
      {{"info", file, "--set", "Speed=1"}, "no such setting; there are FrameReserveCheck"},
      {{"info", file, "--module", dir.path("none.so")}, "can't be loaded"},
      {{"info", file, "--module", "/lib/x86_64-linux-gnu/libc.so.6"}, "isn't a storage module"},
      {{"play", file, "--from", "5", "--to", "5"}, "--from must lie before --to"},
      {{"play", file, "-o", taken}, "exists; --force replaces it"},
      {{"play", file, "-o", file, "--force"}, "is the input file itself"},
      {{"play", file, "-o", dir.path("link.flv"), "--force"}, "is the input file itself"},
      {{"play", file, "-o", dir.path("no/where.flv")}, "No such file"},
      {{"play", file, "-o", "/dev/full"}, "No space left"},
  };
  for (const auto& call : kCalls) {
    const Outcome result = flvhost(call.args);
    EXPECT_EQ(result.exitCode, 2) << call.line;
    EXPECT_THAT(result.err, HasSubstr(call.line));
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(TempDir::read(taken), Bytes{1});
  EXPECT_EQ(TempDir::read(file), movie().bytes());
}

TEST(Flvhost, everySubcommandHelpsWithAnExample) {
  for (const char* command :
       {"info", "segments", "seek", "play", "record", "follow", "meta", "contexts", "demo"}) {
    const Outcome result = flvhost({command, "--help"});
    EXPECT_EQ(result.exitCode, 0);
    const std::size_t example = result.out.find("Example:\n");
    ASSERT_NE(example, std::string::npos) << result.out;
    EXPECT_THAT(result.out.substr(example), HasSubstr(std::string("flvhost ") + command));
  }
}

TEST(Flvhost, infoGivesOneDocumentForManyFiles) {
  TempDir dir;
  const FlvBuilder file = movie();
  Bytes torn = file.bytes();
  torn.resize(torn.size() - 10);
  const Outcome result = flvhost({"info", "--json", "--count", dir.file("a.flv", file.bytes()),
                                  dir.path("missing.flv"), dir.file("t.FLV", torn), dir.file("e.flv", {})});
  EXPECT_EQ(result.exitCode, 2);
  const json files = json::parse(result.out)["files"];
  ASSERT_EQ(files.size(), 4u);
  EXPECT_EQ(files[0]["size"], file.size());
  EXPECT_EQ(files[0]["playableEnd"], file.size());
  EXPECT_EQ(files[0]["duration"], (json{{"ms", 13980}, {"text", "00:00:13.980"}}));
  EXPECT_EQ(files[0]["types"], "audio, video");
  EXPECT_EQ(files[0]["video"]["codec"], "H.263 (Sorenson)");
  EXPECT_EQ(files[0]["video"]["first"]["ms"], 20);
  EXPECT_EQ(files[0]["tags"]["kinds"][0],
            (json{{"type", 8}, {"name", "audio"}, {"tags", 140}, {"bytes", 140000}}));
  EXPECT_THAT(files[1]["error"].get<std::string>(), HasSubstr("No such file"));
  const BuiltTag& beforeTear = file.tags()[file.tags().size() - 2];
  EXPECT_EQ(files[2]["playableEnd"], beforeTear.position);
  EXPECT_EQ(files[2]["bytesBehind"], static_cast<i64>(torn.size()) - beforeTear.position);
  EXPECT_THAT(files[3]["error"].get<std::string>(), HasSubstr("is empty"));
}

TEST(Flvhost, segmentsTileTheFileAndSeekFindsThem) {
  TempDir dir;
  const FlvBuilder movieFile = movie();
  const std::string file = dir.file("f.bin", movieFile.bytes());
  const json segments = json::parse(flvhost({"segments", "--json", file}).out)["segments"];
  ASSERT_EQ(segments.size(), 3u);
  i64 next = 0;
  for (const json& segment : segments) {
    EXPECT_EQ(segment["startPosition"], next);
    next = segment["endPosition"].get<i64>() + 1;
  }
  EXPECT_EQ(next, movieFile.size());

  const json found = json::parse(flvhost({"seek", "--json", file, "0:07.5"}).out);
  EXPECT_EQ(found["segment"], segments[1]);
  EXPECT_EQ(found["tag"]["time"]["ms"], 7500);
  EXPECT_EQ(found["keyFrame"]["time"]["ms"], 7020);
  const Outcome behind = flvhost({"seek", file, "14"});
  EXPECT_EQ(behind.exitCode, 1);
  EXPECT_THAT(behind.err, HasSubstr("lies behind its end at 00:00:13.980"));
}

TEST(Flvhost, playedOutWholeAFileIsItsOwnCopy) {
  TempDir dir;
  const Bytes bytes = movie().tag(9, 0, 300).tag(8, 14000, 50).bytes();  // With a time of 0 near its end.
  const std::string file = dir.file("f.flv", bytes), out = dir.path("out.flv");
  EXPECT_EQ(flvhost({"play", file, "-o", out}).exitCode, 0);
  EXPECT_TRUE(TempDir::read(out) == bytes);
  const Outcome piped = flvhost({"play", file, "-o", "-", "--stats", "--verify"});
  EXPECT_TRUE(piped.out == str(bytes));
  EXPECT_THAT(piped.err, HasSubstr("checked 702 tags"));
  EXPECT_EQ(
      flvhost({"play", dir.file("s.flv", front(movie(), 13 + 1015 * 3)), "-o", out, "--force"}).exitCode, 0);
  EXPECT_TRUE(TempDir::read(out) == front(movie(), 13 + 1015 * 3));
}

TEST(Flvhost, aggregatesGoOutAsSuchIfAskedFor) {
  TempDir dir;
  const std::string file = dir.file("f.flv", movie().bytes());
  const std::string out =
      flvhost({"play", file, "-o", "-", "--aggregates", "--set", "MaxAggMsgSize=2000"}).out;
  Bytes first = orv::test::tagBytes(8, 0, orv::test::payload(8, 1000, 0));
  Bytes entries = front(movie(), 13 + 3 * 1015);
  entries.erase(entries.begin(), entries.begin() + 13 + 1015);
  const Bytes start = FlvBuilder().tag(8, 0, orv::test::payload(8, 1000, 0)).tag(22, 20, entries).bytes();
  EXPECT_TRUE(out.starts_with(str(start)));
}

// The times of the tags that go out.
std::vector<u32> timesOf(const std::string& flvBytes) {
  std::vector<u32> times;
  const auto* const bytes = reinterpret_cast<const u8*>(flvBytes.data());
  for (std::size_t at = 13; at < flvBytes.size();) {
    const flv::TagHeader tag{bytes + at};
    times.push_back(tag.time());
    at += tag.dataSize() + flv::kTagOverhead;
  }
  return times;
}

TEST(Flvhost, playStartsAtTheKeyFrameAndStopsBeforeTheEndTime) {
  TempDir dir;
  FlvBuilder sound;
  for (u32 i = 0; i < 500; ++i) sound.tag(8, 500 + i * 20, 400);
  const std::string pictures = dir.file("v.flv", movie().bytes());
  const std::string soundOnly = dir.file("a.flv", Bytes(sound.bytes()));
  const struct {
    std::string file;
    const char *from, *to;
    u32 first, last, tags;
  } kRanges[] = {
      {pictures, "7.5", "8", 7020, 7980, 49},
      {pictures, "5.3", "5.31", 5020, 5300, 15},  // The key frame stands in the segment before.
      {pictures, "0", "0.1", 0, 80, 5},
      {pictures, "13.98", "99", 13020, 13980, 49},
      {soundOnly, "0", "1", 500, 980, 25},
      {soundOnly, "3.99", "5", 3980, 4980, 51},
  };
  for (const auto& range : kRanges) {
    const std::vector<u32> times =
        timesOf(flvhost({"play", range.file, "--from", range.from, "--to", range.to, "-o", "-"}).out);
    ASSERT_FALSE(times.empty());
    EXPECT_EQ(times.front(), range.first) << range.from;
    EXPECT_EQ(times.back(), range.last) << range.from;
    EXPECT_EQ(times.size(), range.tags) << range.from;
  }
  const Outcome late = flvhost({"play", pictures, "--from", "14", "-o", dir.path("late.flv")});
  EXPECT_EQ(late.exitCode, 1);
  EXPECT_FALSE(std::filesystem::exists(dir.path("late.flv")));
}

TEST(Flvhost, aStartInTheMiddleBringsTheCodecSetup) {
  TempDir dir;
  FlvBuilder file;
  const Bytes avc{0x17, 0, 1, 2, 3}, aac{0xAF, 0, 9};
  file.tag(9, 0, avc).tag(8, 0, aac);
  for (u32 i = 0; i < 100; ++i) file.tag(9, i * 40, Bytes{u8(i % 25 ? 0x27 : 0x17), 1, 0, u8(i)});
  const std::string out = flvhost({"play", dir.file("f.flv", file.bytes()), "--from", "2", "-o", "-"}).out;
  const Bytes start =
      FlvBuilder().tag(9, 2000, avc).tag(8, 2000, aac).tag(9, 2000, Bytes{0x17, 1, 0, 50}).bytes();
  EXPECT_TRUE(out.starts_with(str(start)));
}

TEST(Flvhost, goesOnBehindDamageAndSaysSo) {
  TempDir dir;
  const FlvBuilder good = movie();
  Bytes bad = good.bytes();
  std::fill_n(bad.begin() + good.tags()[100].position, 11, u8{0});  // A header in the first segment.
  std::fill(bad.begin() + 262'000, bad.begin() + 300'000, u8{0});   // Over the start of the second.
  const Outcome result = flvhost({"play", dir.file("f.flv", bad), "-o", "-", "--verify"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("damaged between byte 0 and byte"));
  EXPECT_THAT(result.err, HasSubstr("and byte 523752; what"));
  EXPECT_THAT(result.err, HasSubstr("each one equal"));
  EXPECT_THAT(result.err, HasSubstr("tags of no known type left out: 1"));
  const std::vector<u32> times = timesOf(result.out);
  EXPECT_GT(times.size(), 250u);
  EXPECT_EQ(times.back(), good.lastTime());
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
}

// A failed read makes the module print to standard output.
TEST(Flvhost, whatTheModulePrintsStaysOutOfTheData) {
  TempDir dir;
  const std::string file = dir.file("e.flv", {});
  EXPECT_TRUE(json::accept(flvhost({"info", "--json", file}).out));
  EXPECT_EQ(flvhost({"play", file, "-o", "-"}).out, "");
  EXPECT_THAT(flvhost({"info", "--verbose", file}).err, HasSubstr("error-code"));
}

// A file whose metadata says it all, some of it wrong, and holds an array that refers to itself.
Bytes claimingMovie() {
  const Bytes head = orv::test::bytesOf(
      "02 000A'onMetaData' 08 00000000"
      "0008'duration' 00 402C000000000000"      // 14 s, where the last tag stands at 13.980.
      "0008'filesize' 00 4059000000000000"      // 100
      "000C'videocodecid' 00 4000000000000000"  // H.263
      "000C'audiocodecid' 02 0004'mp4a'"
      "0004'self' 07 0000 000009");
  FlvBuilder file;
  file.tag(18, 0, head).tag(18, 0, orv::test::bytesOf("02 0011'|AdditionalHeader' 05"));
  const FlvBuilder film = movie();
  for (const BuiltTag& tag : film.tags()) {
    const auto data = film.bytes().begin() + tag.position + flv::kTagHeaderSize;
    file.tag(tag.type, tag.time, Bytes(data, data + tag.size));
  }
  return file.bytes();
}

TEST(Flvhost, infoMarksWhereTheMetadataIsWrong) {
  TempDir dir;
  const std::string file = dir.file("f.flv", claimingMovie());
  const json claims = json::parse(flvhost({"info", "--json", file}).out)["files"][0]["claims"];
  EXPECT_EQ(claims["duration"], (json{{"claimed", 14.0}, {"actual", 13.98}, {"agrees", true}}));
  EXPECT_EQ(claims["filesize"],
            (json{{"claimed", 100.0}, {"actual", claimingMovie().size()}, {"agrees", false}}));
  EXPECT_EQ(claims["videocodecid"], (json{{"claimed", 2.0}, {"actual", 2.0}, {"agrees", true}}));
  EXPECT_EQ(claims["audiocodecid"]["claimed"], "\"mp4a\"");
  EXPECT_EQ(claims["audiocodecid"]["agrees"], false);
  EXPECT_THAT(flvhost({"info", file}).out, HasSubstr("filesize 100 bytes, DIFFERS: it is "));
}

TEST(Flvhost, metaAndContextsShowTheHeadAsJsonOrBytes) {
  TempDir dir;
  const std::string file = dir.file("f.flv", claimingMovie());
  const json records = json::parse(flvhost({"meta", file}).out)["records"];
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0]["values"][0]["entries"]["self"], (json{{"type", "reference"}, {"to", 1}}));
  EXPECT_EQ(records[1]["name"], "|AdditionalHeader");
  EXPECT_THAT(flvhost({"meta", "--raw", file}).out,
              HasSubstr("|AdditionalHeader, type 18, 21 bytes\n"
                        "00000000  02 00 11 7c 41 64 64 69  74 69 6f 6e 61 6c 48 65  ...|AdditionalHe\n"
                        "00000010  61 64 65 72 05                                    ader.\n"));

  const json contexts = json::parse(flvhost({"contexts", file}).out);
  std::vector<int> tracks;
  for (const json& context : contexts["getMediaContexts"]) tracks.push_back(context["trackID"]);
  EXPECT_EQ(tracks, (std::vector{2, 3, 5}));
  EXPECT_EQ(contexts["getMediaContexts"][2]["bytes"], "002100000000");
  EXPECT_EQ(contexts["getAllMediaContexts"]["value"]["pairs"].size(), 3u);
  EXPECT_EQ(contexts["getAllMediaContexts"]["value"]["pairs"][2][1]["entries"]["buffer"]["hex"],
            "002100000000");
  const std::string bare = dir.file("bare.flv", movie().bytes());
  EXPECT_EQ(json::parse(flvhost({"contexts", bare}).out)["getAllMediaContexts"], nullptr);
}

TEST(Flvhost, demoChecksEveryTagAndRecordsTheFile) {
  TempDir dir;
  const Outcome result = flvhost({"demo", dir.file("f.flv", movie().bytes())});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("checked   700 tags, 710500 bytes of the file: each one equal"));
  EXPECT_THAT(result.out, HasSubstr("followed  700 tags in 28 looks: each one as it went in; 0 kept aside"));
  EXPECT_THAT(result.out, HasSubstr("mirror    710513 bytes, equal to the recording"));

  FlvBuilder avc;
  for (u32 i = 0; i < 50; ++i) avc.tag(9, i * 40, Bytes{u8(i ? 0x27 : 0x17), 1, 0, 0, 0, u8(i)});
  const Outcome refused = flvhost({"demo", dir.file("avc.flv", avc.bytes())});
  EXPECT_EQ(refused.exitCode, 0) << refused.err;
  EXPECT_THAT(refused.out, HasSubstr("recorded  nothing could be recorded"));
}

}  // namespace
}  // namespace orv::host
