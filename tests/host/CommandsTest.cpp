#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "Damage.h"
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
  static Bytes bytes(const std::string& text) { return {text.begin(), text.end()}; }
  Bytes front(i64 size) const { return {film.bytes().begin(), film.bytes().begin() + size}; }

  TempDir dir;
  const FlvBuilder film = movie();
  const std::string file = dir.file("f.flv", film.bytes());
};

TEST_F(Flvhost, saysInOneLineWhatIsWrongWithAFile) {
  Bytes badFirst = front(1500);
  badFirst[13 + 11 + 1000] = 1;  // Its size field.
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
      {badFirst, "has nothing playable"},
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
      {{}, "no command given"},
      {{"seek", file, "1:99"}, "1:99: not a time"},
      {{"info", file, "--set", "Speed=1"}, "no such setting; there are FrameReserveCheck"},
      {{"info", file, "--set", "ReadSize"}, "give Key=Value"},
      {{"info", file, "--set", "EnableAggMsgs=no"}, "EnableAggMsgs=no: the module takes true or false"},
      {{"info", file, "--set", "ReadSize=4096"}, "takes a number from 16384 to"},
      {{"info", file, "--set", "RetryCorruptedFLVs=x"}, "takes a number"},
      {{"info", file, "--set", "FrameTypes=9,8"}, "takes numbers from 0 to 255 with blanks"},
      {{"info", file, "--set", "MaxFrameScan=131072", "--set", "MinSegSize=262144"},
       "from 262144 to 16777216"},
      {{"record", "-"}, "record needs a file"},
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
      {{"record", made, "--flush-every", "soon"}, "not a time"},
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

TEST_F(Flvhost, helpManualAndCompletionSayTheSame) {
  const std::string folder = dir.path("manual");
  std::filesystem::create_directory(folder);
  ASSERT_EQ(flvhost({"manual", folder}).exitCode, 0);
  const std::string bash = str(TempDir::read(folder + "/flvhost.bash"));
  const std::string zsh = str(TempDir::read(folder + "/_flvhost"));
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string page = entry.path().stem();
    if (entry.path().extension() != ".1" || page == "flvhost") continue;
    const std::string command = page.substr(std::string("flvhost-").size());
    const std::string help = flvhost({command, "--help"}).out, text = str(TempDir::read(entry.path()));
    EXPECT_THAT(help, HasSubstr("Example:\n  ")) << command;
    EXPECT_THAT(text, HasSubstr(".SH EXAMPLES")) << command;
    EXPECT_THAT(text, HasSubstr(".SH EXIT STATUS")) << command;
    const std::regex name("--[a-z-]+");
    for (std::sregex_iterator it(help.begin(), help.end(), name), end; it != end; ++it) {
      const std::string option = it->str();
      EXPECT_THAT(text, HasSubstr(std::regex_replace(option, std::regex("-"), "\\-"))) << command;
      EXPECT_THAT(bash, HasSubstr(option)) << command;
      EXPECT_THAT(zsh, HasSubstr("'" + option + "[")) << command;
    }
  }
  const std::string script = "source " + folder +
                             "/flvhost.bash; COMP_WORDS=(flvhost record --sync ''); COMP_CWORD=3; "
                             "_flvhost; [ \"${COMPREPLY[*]}\" = 'none flush interval' ]";
  EXPECT_EQ(
      std::system(("bash -c \"" + std::regex_replace(script, std::regex("([\"$])"), "\\$1") + "\"").c_str()),
      0);
  EXPECT_THAT(flvhost({"--version"}).out, testing::StartsWith("flvhost 1."));
}

TEST_F(Flvhost, errorsNameTheCommandsHelpAndComeAsJsonToo) {
  EXPECT_THAT(flvhost({"seek"}).err, HasSubstr("see flvhost seek --help"));
  for (const char* const command : {"segments", "seek", "info", "tags"}) {
    std::vector<std::string> args{command, "--json", dir.path("none.flv")};
    if (args[0] == "seek") args.emplace_back("1");
    const Outcome missing = flvhost(args);
    EXPECT_EQ(missing.exitCode, 2) << command;
    EXPECT_TRUE(json::accept(missing.out)) << command << missing.out;
    EXPECT_THAT(missing.out, HasSubstr("No such file")) << command;
  }
  EXPECT_EQ(flvhost({"play", file, "-o", dir.path("quiet.flv"), "--quiet"}).err, "");
  EXPECT_EQ(flvhost({"repair", file, dir.path("mended.flv"), "--quiet"}).err, "");
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
  const json earlier = json::parse(flvhost({"seek", "--json", file, "5.3"}).out);
  EXPECT_EQ(earlier["segment"], segments[1]);
  EXPECT_EQ(earlier["keyFrame"]["time"]["ms"], 5020);  // In the segment before.
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
  // Extended headers, and a set-up record that changes in the middle.
  const auto hevc = [](u8 first, u8 last) { return Bytes{first, 'h', 'v', 'c', '1', 0, 0, 0, last}; };
  FlvBuilder extended;
  extended.tag(9, 0, hevc(0x90, 1));
  for (u32 i = 0; i < 100; ++i) {
    extended.tag(9, i * 40, i == 30 ? hevc(0x90, 2) : hevc(i % 25 ? 0xA1 : 0x91, u8(i)));
  }
  const Bytes laterSetup = FlvBuilder(9, 1).tag(9, 2000, hevc(0x90, 2)).bytes();
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
      {extended.bytes(), {"--from", "2.9"}, join(laterSetup, part(extended, 51, 101), 13)},
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

TEST_F(Flvhost, playsEveryWholeTagOfADamagedFile) {
  const auto& tags = film.tags();
  Damage several(film);
  several.overwrite(tags[100].position, Bytes(11)).overwrite(262'000, Bytes(38'000));
  const struct {
    const char* name;
    Damage damage;
  } kCases[] = {
      {"a header, and the start of a segment", several},
      {"junk between tags", Damage(film).insert(tags[50].position, noise(5000))},
      {"junk inside a tag", Damage(film).insert(tags[50].position + 300, noise(5000))},
      {"zeros", Damage(film).overwrite(100'000, Bytes(65'536))},
      {"bytes missing", Damage(film).remove(100'000, 7777)},
      {"two holes", Damage(film).remove(50'000, 3000).remove(400'000, 9000)},
      {"a wrong size field", Damage(film).overwrite(tags[20].end() - 4, {0, 0, 0, 99})},
  };
  for (const auto& c : kCases) {
    const Outcome result = flvhost({"play", dir.file("bad.flv", c.damage.bytes()), "-o", "-"});
    EXPECT_EQ(result.exitCode, 1) << c.name;
    EXPECT_THAT(result.err, HasSubstr("damaged between byte ")) << c.name;
    EXPECT_THAT(result.err, HasSubstr("tags found behind damage: ")) << c.name;
    TagList played = tagsOf(result.out);
    std::size_t whole = 0;
    for (const auto& tag : c.damage.whole())
      whole += static_cast<std::size_t>(std::ranges::count(played, tag));
    EXPECT_EQ(whole, c.damage.whole().size()) << c.name;  // Each one, once.
    EXPECT_LE(played.size(), whole + 2) << c.name;
  }
}

// Nor is anything else left, whatever ends the program.
TEST_F(Flvhost, anOutputAppearsWholeOrNotAtAll) {
  std::signal(SIGXFSZ, SIG_IGN);
  const Bytes old{1, 2, 3};
  const std::string out = dir.file("out.flv", old);
  const auto names = [&] { return std::distance(std::filesystem::directory_iterator(dir.path("")), {}); };
  const auto before = names();
  {
    const FileSizeLimit limit(300'000);
    EXPECT_EQ(flvhost({"play", file, "-o", out, "--force"}).exitCode, 2);
    EXPECT_EQ(flvhost({"play", file, "-o", dir.path("new.flv")}).exitCode, 2);
  }
  EXPECT_EQ(TempDir::read(out), old);
  EXPECT_EQ(names(), before);
  ASSERT_EQ(::chmod(out.c_str(), 0604), 0);
  ASSERT_EQ(::symlink(out.c_str(), dir.path("alias.flv").c_str()), 0);
  EXPECT_EQ(flvhost({"play", file, "-o", dir.path("alias.flv"), "--force"}).exitCode, 0);
  EXPECT_TRUE(TempDir::read(out) == film.bytes());
  struct stat status {};
  ::stat(out.c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777u, 0604u);
}

TEST_F(Flvhost, foreignTextReachesNoTerminalRaw) {
  const Bytes metadata =
      onMetaData("0008'duration' 02 0009 1B 5B 324A C29B 324A 7F 0008'filesize' 0C FFFFFFFF");
  const Bytes claiming = onMetaData("0008'duration' 02 0008 1B 5B 324A C29B 324A");
  const std::string name =
      dir.file("a\x1b[2J\xc2\x9b\xff.flv", movie(9, FlvBuilder().tag(18, 0, claiming)).bytes());
  dir.file("b\x1b.flv", metadata);
  const std::vector<std::string> kCalls[] = {
      {"info", name},      {"info", "--json", name}, {"meta", name}, {"contexts", name},
      {"seek", name, "0"}, {"seek", name, "99"},     {"play", name}, {"info", dir.path("b\x1b.flv")},
      {"\x1b[2J"},         {"seek", name, "\x1b[2J"}};
  for (const auto& call : kCalls) {
    const Outcome result = flvhost(call);
    const std::string shown = result.out + result.err;
    EXPECT_FALSE(shown.empty());
    for (const char* const raw : {"\x1b", "\xc2\x9b", "\x7f", "\xff"}) {
      EXPECT_THAT(shown, testing::Not(HasSubstr(raw))) << call[0];
    }
  }
}

// A killed recording of huge key frames, and what a power cut leaves.
TEST_F(Flvhost, sightOfWholeTagsIsNotLostToTheTornEndBehindThem) {
  const std::string all = std::to_string(film.bytes().size()), wholeTo = "whole to byte " + all;
  const struct {
    Bytes front;  // Of the torn end; the filler takes the rest.
    u8 filler;
    std::size_t size;
    std::string told, shown;
    std::size_t hidden;  // Tags that `play` doesn't find.
  } kCases[] = {
      {{9, 0, 0, 50}, 7, 40, "", wholeTo, 1},
      {{9, 0x60, 0, 0, 0, 0x40, 0}, 0x55, 5'500'000, "no sound tag in its last 4194304 bytes", wholeTo, 1},
      {{9, 0xFF, 0xFF, 0xFF}, 0x55, 0xFFFFFF, "all tags are whole", "to byte " + all + ";", 0},
      {{}, 0, 17'000'000, "its first " + all + " bytes all tags are whole", "to byte " + all + ";", 0},
  };
  for (const auto& c : kCases) {
    Bytes torn = film.bytes();
    torn.insert(torn.end(), c.front.begin(), c.front.end());
    torn.resize(film.bytes().size() + c.size, c.filler);
    const std::string file = dir.file("torn.flv", torn);
    const Outcome played = flvhost({"play", file, "-o", "-"});
    EXPECT_EQ(played.exitCode, 0) << played.err;
    EXPECT_THAT(played.err, HasSubstr(c.told));
    EXPECT_EQ(tagsOf(played.out).size() + c.hidden, film.tags().size());
    EXPECT_THAT(flvhost({"info", file}).out, HasSubstr(c.shown));
    const Outcome refused = flvhost({"record", file, "--append"}, film.bytes());
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.err, HasSubstr("its last " + std::to_string(c.size) + " bytes hold no whole tag"));
  }
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
      "0009'keyframes' 03 000009"
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
  // A piece tells the truth of itself, in a pipe as far as it can.
  const std::string clip = dir.path("clip.flv");
  EXPECT_EQ(flvhost({"play", claims, "--from", "5.3", "--to", "8", "-o", clip}).exitCode, 0);
  const Bytes whole = TempDir::read(clip);
  const std::string piped =
      dir.file("piped.flv", bytes(flvhost({"play", claims, "--from", "5.3", "--to", "8", "-o", "-"}).out));
  for (const std::string& name : {clip, piped}) {
    const json shown = json::parse(flvhost({"info", "--json", name}).out)["files"][0],
               &told = shown["claims"];
    EXPECT_EQ(told["duration"]["claimed"], 2.96);
    EXPECT_EQ(told["duration"]["agrees"], true);
    EXPECT_EQ(shown["first"]["ms"], 5020);
    EXPECT_EQ(told.contains("filesize"), name == clip);
    if (name == clip) {
      EXPECT_EQ(told["filesize"]["claimed"], whole.size());
    }
    const json entries = json::parse(flvhost({"meta", name}).out)["records"][0]["values"][0]["entries"];
    EXPECT_FALSE(entries.contains("keyframes"));
  }

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

#ifndef __SANITIZE_THREAD__  // Sanitizers take more address space than any limit leaves.
#ifndef __SANITIZE_ADDRESS__
// The largest tag, filled with the dearest arrays.
TEST_F(Flvhost, metadataTakesMemoryInProportion) {
  Bytes metadata = bytesOf("02 000A'onMetaData' 0A 003FFFF0");
  for (u32 i = 0; i < 0x3FFFF0; ++i) metadata.insert(metadata.end(), {3, 0, 0, 9});
  const std::string large = dir.file("large.flv", movie(700, FlvBuilder().tag(18, 0, metadata)).bytes());
  for (const char* const command : {"meta", "contexts"}) {
    std::optional<MemoryLimit> limit(500'000'000);
    Running run({command, large});
    limit.reset();
    const Outcome result = run.wait();
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(result.out.ends_with("}\n"));
  }
}
#endif
#endif

TEST_F(Flvhost, demoChecksEveryTagAndRecordsTheFile) {
  const Outcome result = flvhost({"demo", file});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("checked   700 tags, 710500 bytes of the file: each one equal"));
  EXPECT_THAT(result.out, HasSubstr("followed  700 tags in 28 looks: each one as it went in; 0 kept aside"));
  EXPECT_THAT(result.out, HasSubstr("mirror    710513 bytes, equal to the recording"));

  FlvBuilder odd;  // Of a type that no player knows.
  for (u32 i = 0; i < 50; ++i) odd.tag(47, i * 40, Bytes{u8(i)});
  const Outcome refused = flvhost({"demo", dir.file("odd.flv", odd.bytes())});
  EXPECT_EQ(refused.exitCode, 0) << refused.err;
  EXPECT_THAT(refused.out, HasSubstr("recorded  "));
}

// What isn't among the first tags isn't denied, and what a count finds is said.
TEST_F(Flvhost, infoStatesNothingThatACountContradicts) {
  const Bytes claim = onMetaData(
      "000C'audiocodecid' 00 4000000000000000 0005'width' 00 4074000000000000"
      "0006'height' 00 406E000000000000");
  FlvBuilder late = FlvBuilder().tag(18, 0, claim);
  for (u32 i = 0; i < 100; ++i) late.tag(9, 5000 + i * 40, 20'000);
  const std::string name = dir.file("late.flv", late.tag(8, 9000, Bytes{0x2F, 1}).bytes());
  const std::string front = flvhost({"info", name}).out, all = flvhost({"info", "--count", name}).out;
  EXPECT_THAT(front, HasSubstr("duration  00:00:04.000, from 00:00:05.000 to 00:00:09.000"));
  EXPECT_THAT(front, HasSubstr("picture   320x240, 25 frames/s"));
  EXPECT_THAT(front, HasSubstr("audiocodecid MP3, of which the first tags say nothing"));
  EXPECT_THAT(all, HasSubstr("audiocodecid MP3, as the tags say"));
  EXPECT_THAT(all, HasSubstr("rate      4003 kbit/s, video 4000 kbit/s, audio 0 kbit/s"));
  Bytes bad = film.bytes();
  std::fill(bad.begin() + 262'000, bad.begin() + 300'000, u8{0});
  EXPECT_THAT(flvhost({"info", "--count", dir.file("bad.flv", bad)}).out, HasSubstr("but damaged in "));
  EXPECT_THAT(flvhost({"info", "--count", dir.file("quiet.flv", part(film, 1, 5))}).out,
              HasSubstr("audio, video (flags 0x05); the tags: video"));
}

}  // namespace
}  // namespace orv::host
