#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "Damage.h"
#include "Program.h"

namespace orv::host {
namespace {

using namespace test;
using testing::HasSubstr;

class Flvhost : public testing::Test {
 protected:
  // The film's tags from `begin` to before `end`, as a file of their own.
  static Bytes part(const FlvBuilder& film, std::size_t begin, std::size_t end, u8 flags = 5) {
    const auto bytes = film.bytes().begin();
    const Bytes tags(bytes + film.tags()[begin].position, bytes + film.tags()[end - 1].end());
    return FlvBuilder(flv::kFileHeaderSize, flags).raw(tags).bytes();
  }

  TempDir dir;
  const FlvBuilder film = movie();
  const std::string file = dir.file("f.flv", film.bytes());
};

// With UPDATE=1 in the environment, what is printed now becomes the transcript.
void runTranscript(const char* name) {
  const std::string folder = FLV_TEST_DATA "/../host/";
  const std::string call = folder +
                           "transcripts.sh '" FLVHOST_PATH "' '" FLV_MODULE_PATH "' '" FLV_SAMPLE_PATH "' '" +
                           folder + name;
  EXPECT_EQ(std::system((call + "'").c_str()), 0);
}

TEST(Transcript, ofEveryReadingCommand) {
  runTranscript("commands.txt");
}

TEST(Transcript, ofCheckAndRepair) {
  runTranscript("repair.txt");
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

TEST_F(Flvhost, coloursOnlyATerminalThatWantsIt) {
  const std::string check = "script -qec '" FLVHOST_PATH " check " +
                            dir.file("bad.flv", Bytes(film.bytes().begin(), film.bytes().begin() + 30'000)) +
                            "' ";
  const std::string out = dir.path("out");
  for (const char* const refusal : {"", "1"}) {
    EXPECT_EQ(
        std::system(("NO_COLOR=" + std::string(refusal) + " " + check + out + " >/dev/null").c_str()) >> 8,
        1);
    EXPECT_EQ(str(TempDir::read(out)).find("\x1b[31merror   \x1b[0m") == std::string::npos, *refusal == '1');
  }
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
  for (const std::string& name : {file, std::string(FLV_SAMPLE_PATH)}) {
    EXPECT_THAT(flvhost({"play", name, "--aggregates", "--set", "MaxAggMsgSize=20000", "--verify"}).out,
                testing::ContainsRegex("checked   (700|382) tags, .*: each one equal"));
  }
}

// Played, followed, or recorded anew.
TEST_F(Flvhost, deliversEveryWholeTagOfADamagedFile) {
  const auto& tags = film.tags();
  Damage several(film);
  several.overwrite(tags[100].position, Bytes(11)).overwrite(262'000, Bytes(38'000));
  std::string verified;
  const struct {
    const char* name;
    Damage damage;
    const char* recorded = "standard input: damaged; ";
  } kCases[] = {
      {"a header, and the start of a segment", several},
      {"junk between tags", Damage(film).insert(tags[50].position, noise(5000))},
      {"junk inside a tag", Damage(film).insert(tags[50].position + 300, noise(5000))},
      {"zeros", Damage(film).overwrite(100'000, Bytes(65'536))},
      {"bytes missing", Damage(film).remove(100'000, 7777)},
      {"two holes", Damage(film).remove(50'000, 3000).remove(400'000, 9000)},
      {"a wrong size field", Damage(film).overwrite(tags[20].end() - 4, {0, 0, 0, 99}), ""},
  };
  for (const auto& c : kCases) {
    const std::string bad = dir.file("bad.flv", c.damage.bytes());
    const auto expectWhole = [&](const Outcome& result, const std::string& line, const std::string& out) {
      EXPECT_EQ(result.exitCode, line.empty() ? 0 : 1) << c.name;
      EXPECT_THAT(result.err, HasSubstr(line)) << c.name;
      const TagList got = tagsOf(out);
      const TagList wanted = c.damage.whole();
      std::size_t whole = 0;
      for (const auto& tag : wanted) whole += static_cast<std::size_t>(std::ranges::count(got, tag));
      EXPECT_EQ(whole, wanted.size()) << c.name << line;  // Each one, once.
      EXPECT_LE(got.size(), whole + 2) << c.name << line;
    };
    const Outcome played = flvhost({"play", bad, "-o", "-", "--verify"});
    expectWhole(played, "tags found behind damage: ", played.out);
    EXPECT_THAT(played.err, HasSubstr("damaged between bytes ")) << c.name;
    const Outcome followed = flvhost({"follow", bad, "-o", "-", "--until-idle", "0"});
    expectWhole(followed, "damaged between bytes ", followed.out);
    const std::string again = dir.path("again.flv");
    const Outcome recorded = flvhost({"record", again, "--keep-metadata", "--overwrite"}, c.damage.bytes());
    expectWhole(recorded, c.recorded, str(TempDir::read(again)));
    verified += played.err + "\n";
  }
  EXPECT_THAT(verified, HasSubstr("each one equal"));
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

// A killed recording of huge key frames.
TEST_F(Flvhost, aTornEndLongerThanTheModuleSearchesIsSearchedOnceMore) {
  Bytes torn = film.bytes();
  const u8 header[flv::kTagHeaderSize] = {9, 0x60, 0, 0, 0, 0x40, 0};
  torn.insert(torn.end(), header, header + sizeof header);
  torn.resize(torn.size() + 5'500'000, 0x55);
  const Outcome result = flvhost({"play", dir.file("torn.flv", torn), "-o", "-"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("no whole tag in its last 4194304 bytes (MaxBackFrameScan)"));
  EXPECT_GE(tagsOf(result.out).size(), film.tags().size() - 1);
  const Outcome refused = flvhost({"record", dir.path("torn.flv"), "--append"}, film.bytes());
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.err, HasSubstr("flvhost repair"));
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

}  // namespace
}  // namespace orv::host
