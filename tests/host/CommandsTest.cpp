#include <gmock/gmock.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Movie.h"
#include "Program.h"

namespace orv::host {
namespace {

using namespace test;
using nlohmann::json;
using testing::HasSubstr;

class Flvhost : public testing::Test {
 protected:
  // The film's tags from `begin` to before `end`, as a file of their own.
  static Bytes part(const FlvBuilder& film, std::size_t begin, std::size_t end, u8 flags = 5) {
    const auto bytes = film.bytes().begin();
    const Bytes tags(bytes + film.tags()[begin].position, bytes + film.tags()[end - 1].end());
    return FlvBuilder(flv::kFileHeaderSize, flags).raw(tags).bytes();
  }
  Bytes front(i64 size) const { return {film.bytes().begin(), film.bytes().begin() + size}; }

  TempDir dir;
  const FlvBuilder film = movie();
  const std::string file = dir.file("f.flv", film.bytes());
};

TEST_F(Flvhost, saysInOneLineWhatIsWrongWithAFile) {
  const struct {
    Bytes bytes;
    const char* line;
  } kFiles[] = {
      {{}, "is empty (0 bytes)"},
      {Bytes(5000), "isn't an FLV file: it starts with \"\\x00\\x00\\x00\\x00\""},
      {front(2), "ends inside its header, after 2 bytes"},
      {bytesOf("'FLV' 02 05 00000009 00000000"), "has FLV version 2"},
      {FlvBuilder(0xFFFFFFFF).interleaved(3).bytes(), "has a header that claims 4294967295 bytes"},
      {FlvBuilder(0).interleaved(3).bytes(), "has a header that claims 0 bytes"},
      {front(13), "has a header and no tags"},
      {front(20), "ends inside its first tag"},
      {front(200), "has a first tag of 1000 bytes at byte 13 that doesn't fit the 200 bytes"},
      {FlvBuilder().tag(7, 0, 10).bytes(), "has no valid first tag: type 7 at byte 13"},
      {front(1500), "has nothing playable"},
  };
  for (const auto& f : kFiles) {
    const std::string bad = dir.file("bad.flv", f.bytes);
    for (const char* command : {"segments", "play", "demo"}) {
      const Outcome result = flvhost({command, bad});
      EXPECT_EQ(result.exitCode, 1) << f.line << command;
      EXPECT_THAT(result.err, testing::StartsWith("flvhost: " + bad + ": " + f.line)) << command;
      EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
  }
}

TEST_F(Flvhost, callsThatCantBeServedEndWithTwo) {
  const std::string taken = dir.file("taken.flv", {1}), made = dir.path("made.flv");
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
      {{"info", file, "--set", "ReadSize"}, "Key=Value is wanted"},
      {{"info", file, "--module", dir.path("none.so")}, "can't be loaded"},
      {{"info", file, "--module", "/lib/x86_64-linux-gnu/libc.so.6"}, "isn't a storage module"},
      {{"play", file, "--from", "5", "--to", "5"}, "--from must lie before --to"},
      {{"play", file, "-o", taken}, "exists; --force replaces it"},
      {{"play", file, "-o", file, "--force"}, "is the input file itself"},
      {{"play", file, "-o", dir.path("link.flv"), "--force"}, "is the input file itself"},
      {{"play", file, "-o", dir.path("no/where.flv")}, "No such file"},
      {{"play", file, "-o", "/dev/full"}, "No space left"},
      {{"follow", dir.path("none.flv")}, "No such file"},
      {{"record", "/dev/null"}, "isn't a regular file"},
      {{"record", taken + "/x.flv"}, "Not a directory"},
      {{"record", file, "--append", "--overwrite"}, "excludes"},
      {{"record", made, "--flush-every", "soon"}, "isn't a time"},
      {{"record", made, "--backup", made}, "is the recorded file itself"},
      {{"record", made, "--backup", dir.path("./x/../made.flv")}, "is the recorded file itself"},
      {{"record", made, "--backup", "/dev/null"}, "isn't a regular file"},
      {{"record", made, "--backup", dir.path("no/where.flv")}, "No such file"},
  };
  for (const auto& call : kCalls) {
    const Outcome result = flvhost(call.args);
    EXPECT_EQ(result.exitCode, 2) << call.line;
    EXPECT_THAT(result.err, HasSubstr(call.line));
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(TempDir::read(taken), Bytes{1});
  EXPECT_EQ(TempDir::read(file), film.bytes());
  EXPECT_FALSE(std::filesystem::exists(made));
}

TEST_F(Flvhost, helpsWithAnExample) {
  const Outcome result = flvhost({"play", "--help"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.out, HasSubstr("Example:\n  flvhost play "));
}

TEST_F(Flvhost, infoGivesOneDocumentForManyFiles) {
  const Outcome result = flvhost({"info", "--json", "--count", file, dir.path("missing.flv"),
                                  dir.file("torn.FLV", front(film.size() - 10)), dir.file("empty.flv", {})});
  EXPECT_EQ(result.exitCode, 2);
  const json files = json::parse(result.out)["files"];
  ASSERT_EQ(files.size(), 4u);
  EXPECT_EQ(files[0]["size"], film.size());
  EXPECT_EQ(files[0]["playableEnd"], film.size());
  EXPECT_EQ(files[0]["duration"], (json{{"ms", 13980}, {"text", "00:00:13.980"}}));
  EXPECT_EQ(files[0]["types"], "audio, video");
  EXPECT_EQ(files[0]["video"]["codec"], "H.263 (Sorenson)");
  EXPECT_EQ(files[0]["video"]["first"]["ms"], 20);
  EXPECT_EQ(files[0]["tags"]["kinds"][0],
            (json{{"type", 8}, {"name", "audio"}, {"tags", 140}, {"bytes", 140000}}));
  EXPECT_THAT(files[1]["error"].get<std::string>(), HasSubstr("No such file"));
  const i64 beforeTear = film.tags()[698].position;
  EXPECT_EQ(files[2]["playableEnd"], beforeTear);
  EXPECT_EQ(files[2]["bytesBehind"], film.size() - 10 - beforeTear);
  EXPECT_THAT(files[3]["error"].get<std::string>(), HasSubstr("is empty"));
}

TEST_F(Flvhost, segmentsTileTheFileAndSeekFindsThem) {
  const json segments = json::parse(flvhost({"segments", "--json", file}).out)["segments"];
  ASSERT_EQ(segments.size(), 3u);
  i64 next = 0;
  for (const json& segment : segments) {
    EXPECT_EQ(segment["startPosition"], next);
    next = segment["endPosition"].get<i64>() + 1;
  }
  EXPECT_EQ(next, film.size());

  const json found = json::parse(flvhost({"seek", "--json", file, "0:07.5"}).out);
  EXPECT_EQ(found["segment"], segments[1]);
  EXPECT_EQ(found["tag"]["time"]["ms"], 7500);
  EXPECT_EQ(found["keyFrame"]["time"]["ms"], 7020);
  const Outcome behind = flvhost({"seek", file, "14"});
  EXPECT_EQ(behind.exitCode, 1);
  EXPECT_THAT(behind.err, HasSubstr("lies behind its end at 00:00:13.980"));
}

TEST_F(Flvhost, playsOutByteForByteWhatIsAskedFor) {
  const FlvBuilder late = movie().tag(9, 0, 300).tag(8, 0x01020304, 50);
  const Bytes firstSound = part(film, 0, 1), behindIt = part(film, 1, 3);
  const Bytes pair(behindIt.begin() + flv::kFirstTagPosition, behindIt.end());
  FlvBuilder sound, coded;
  for (u32 i = 0; i < 500; ++i) sound.tag(8, 500 + i * 20, 400);
  const Bytes avc{0x17, 0, 1, 2, 3}, aac{0xAF, 0, 9};
  coded.tag(9, 0, avc).tag(8, 0, aac);
  for (u32 i = 0; i < 100; ++i) coded.tag(9, i * 40, Bytes{u8(i % 25 ? 0x27 : 0x17), 1, 0, u8(i)});
  const Bytes setups = FlvBuilder().tag(9, 2000, avc).tag(8, 2000, aac).bytes();
  const struct {
    Bytes file;
    std::vector<std::string> args;
    Bytes played;
  } kCases[] = {
      {late.bytes(), {}, late.bytes()},
      {part(film, 0, 3), {}, part(film, 0, 3)},
      {part(film, 0, 3),
       {"--aggregates"},
       FlvBuilder().raw({firstSound.begin() + 13, firstSound.end()}).tag(22, 20, pair).bytes()},
      {film.bytes(), {"--from", "7.5", "--to", "8"}, part(film, 351, 400)},
      // The key frame stands in the segment before.
      {film.bytes(), {"--from", "5.3", "--to", "5.31"}, part(film, 251, 266)},
      {film.bytes(), {"--from", "0", "--to", "0.1"}, part(film, 0, 5)},
      {film.bytes(), {"--from", "0.02", "--to", "0.1"}, part(film, 1, 5, 1)},
      {film.bytes(), {"--from", "13.98", "--to", "99"}, part(film, 651, 700)},
      {sound.bytes(), {"--from", "0", "--to", "1"}, part(sound, 0, 25, 4)},
      {sound.bytes(), {"--from", "3.99", "--to", "5"}, part(sound, 174, 225, 4)},
      {coded.bytes(), {"--from", "2"}, join(setups, part(coded, 52, 102), 13)},
  };
  const std::string out = dir.path("out.flv");
  for (const auto& c : kCases) {
    std::vector<std::string> args{"play", dir.file("in.flv", c.file), "-o", out, "--force"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(flvhost(args).exitCode, 0) << testing::PrintToString(c.args);
    EXPECT_TRUE(TempDir::read(out) == c.played) << testing::PrintToString(c.args);
  }
  const Outcome piped =
      flvhost({"play", dir.file("late.flv", late.bytes()), "-o", "-", "--stats", "--verify"});
  EXPECT_TRUE(piped.out == str(late.bytes()));
  EXPECT_THAT(piped.err, HasSubstr("checked 702 tags"));
  EXPECT_EQ(flvhost({"play", file, "--from", "14", "-o", dir.path("none.flv")}).exitCode, 1);
  EXPECT_FALSE(std::filesystem::exists(dir.path("none.flv")));
}

TEST_F(Flvhost, goesOnBehindDamageAndSaysSo) {
  Bytes bad = film.bytes();
  std::fill_n(bad.begin() + film.tags()[100].position, 11, u8{0});  // A header in the first segment.
  std::fill(bad.begin() + 262'000, bad.begin() + 300'000, u8{0});   // Over the start of the second.
  const Outcome result = flvhost({"play", dir.file("bad.flv", bad), "-o", "-", "--verify"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("damaged between byte 0 and byte"));
  EXPECT_THAT(result.err, HasSubstr("and byte 523752; what"));
  EXPECT_THAT(result.err, HasSubstr("each one equal"));
  EXPECT_THAT(result.err, HasSubstr("tags of no known type left out: 1"));
  const TagList tags = tagsOf(result.out);
  EXPECT_GT(tags.size(), 250u);
  EXPECT_EQ(tags.back().time, film.lastTime());
  EXPECT_TRUE(std::ranges::is_sorted(tags, {}, &orv::test::Message::time));
}

// A failed read makes the module print to standard output.
TEST_F(Flvhost, whatTheModulePrintsStaysOutOfTheData) {
  const std::string empty = dir.file("empty.flv", {});
  EXPECT_TRUE(json::accept(flvhost({"info", "--json", empty}).out));
  EXPECT_EQ(flvhost({"play", empty, "-o", "-"}).out, "");
  EXPECT_THAT(flvhost({"info", "--verbose", empty}).err, HasSubstr("error-code"));
}

// Metadata that says it all, some of it wrong, and holds an array that refers to itself.
TEST_F(Flvhost, theHeadIsShownAndHeldAgainstTheTags) {
  const Bytes metadata = onMetaData(
      "0008'duration' 00 402C000000000000"      // 14 s, where the last tag stands at 13.980.
      "0008'filesize' 00 4059000000000000"      // 100
      "000C'videocodecid' 00 4000000000000000"  // H.263
      "000C'audiocodecid' 02 0004'mp4a'"
      "0004'self' 07 0000");
  const Bytes additional = bytesOf("02 0011'|AdditionalHeader' 05");
  const FlvBuilder claiming = movie(700, FlvBuilder().tag(18, 0, metadata).tag(18, 0, additional));
  const std::string claims = dir.file("claims.flv", claiming.bytes());
  EXPECT_EQ(json::parse(flvhost({"info", "--json", claims}).out)["files"][0]["claims"],
            (json{{"duration", {{"claimed", 14.0}, {"actual", 13.98}, {"agrees", true}}},
                  {"filesize", {{"claimed", 100.0}, {"actual", claiming.size()}, {"agrees", false}}},
                  {"videocodecid", {{"claimed", 2.0}, {"actual", 2.0}, {"agrees", true}}},
                  {"audiocodecid", {{"claimed", "\"mp4a\""}, {"actual", 2.0}, {"agrees", false}}}}));
  EXPECT_THAT(flvhost({"info", claims}).out, HasSubstr("filesize 100 bytes, DIFFERS: it is "));

  const json records = json::parse(flvhost({"meta", claims}).out)["records"];
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0]["values"][0]["entries"]["self"], (json{{"type", "reference"}, {"to", 1}}));
  EXPECT_EQ(records[1]["name"], "|AdditionalHeader");
  EXPECT_THAT(flvhost({"meta", "--raw", claims}).out,
              HasSubstr("|AdditionalHeader, type 18, 21 bytes\n"
                        "00000000  02 00 11 7c 41 64 64 69  74 69 6f 6e 61 6c 48 65  ...|AdditionalHe\n"
                        "00000010  61 64 65 72 05                                    ader.\n"));

  const json contexts = json::parse(flvhost({"contexts", claims}).out), &one = contexts["getMediaContexts"];
  ASSERT_EQ(one.size(), 3u);
  EXPECT_EQ(one[0]["trackID"], 2);
  EXPECT_EQ(one[1]["trackID"], 3);
  EXPECT_EQ(one[2]["trackID"], 5);
  EXPECT_EQ(one[2]["bytes"], "002100000000");
  const json& all = contexts["getAllMediaContexts"]["value"]["pairs"];
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[2][1]["entries"]["buffer"]["hex"], "002100000000");
  EXPECT_EQ(json::parse(flvhost({"contexts", file}).out)["getAllMediaContexts"], nullptr);
}

TEST_F(Flvhost, demoChecksEveryTagAndRecordsTheFile) {
  const Outcome result = flvhost({"demo", file});
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
