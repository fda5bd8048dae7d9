#include <gmock/gmock.h>

#include "Damage.h"
#include "Program.h"
#include "platform/Sanitizers.h"

namespace orv::host::test {
namespace {

using testing::HasSubstr;

// With UPDATE=1 in the environment, what is printed now becomes the transcript.
TEST(Flvhost, printsWhatTheTranscriptsHold) {
  const std::string folder = FLV_TEST_DATA "/../host/";
  for (const char* const name : {"commands.txt", "repair.txt", "record.txt"}) {
    const std::string call =
        folder + "transcripts.sh '" FLVHOST_PATH "' '" FLV_MODULE_PATH "' '" FLV_SAMPLE_PATH "' '" + folder +
        name + "'";
    EXPECT_EQ(std::system(call.c_str()), 0) << name;
  }
}

// The film's tags from `begin` to before `end`, as a file of their own.
Bytes part(const FlvBuilder& film, std::size_t begin, std::size_t end, u8 flags = 5) {
  const auto bytes = film.bytes().begin();
  const Bytes tags(bytes + film.tags()[begin].position, bytes + film.tags()[end - 1].end());
  return FlvBuilder(flv::kFileHeaderSize, flags).raw(tags).bytes();
}

TEST(Flvhost, playsOutByteForByteWhatIsAskedFor) {
  const FlvBuilder film = movie(), late = movie().tag(9, 0, 300).tag(8, 0x01020304, 50);
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
    std::string options;
    Bytes played;
  } kCases[] = {
      {late.bytes(), "", late.bytes()},
      {part(film, 0, 3), "", part(film, 0, 3)},
      {part(film, 0, 3), "--aggregates", join(firstSound, FlvBuilder().tag(22, 20, pair).bytes(), 13)},
      {film.bytes(), "--from 7.5 --to 8", part(film, 351, 400)},
      {film.bytes(), "--from 5.3 --to 5.31", part(film, 251, 266)},  // The key frame is a segment before.
      {film.bytes(), "--from 0 --to 0.1", part(film, 0, 5)},
      {film.bytes(), "--from 0.02 --to 0.1", part(film, 1, 5, 1)},
      {film.bytes(), "--from 13.98 --to 99", part(film, 651, 700)},
      {sound.bytes(), "--from 0 --to 1", part(sound, 0, 25, 4)},
      {sound.bytes(), "--from 3.99 --to 5", part(sound, 174, 225, 4)},
      {coded.bytes(), "--from 2", join(setups, part(coded, 52, 102), 13)},
      {extended.bytes(), "--from 2.9", join(laterSetup, part(extended, 51, 101), 13)},
  };
  const TempDir dir;
  const std::string out = dir.path("out.flv");
  for (const auto& c : kCases) {
    const std::string in = dir.file("in.flv", c.file);
    EXPECT_EQ(flvhost("play " + in + " -o " + out + " --force " + c.options).exitCode, 0) << c.options;
    EXPECT_TRUE(TempDir::read(out) == c.played) << c.options;
  }
  const Outcome piped = flvhost("play " + dir.file("late.flv", late.bytes()) + " -o - --stats --verify");
  EXPECT_TRUE(piped.out == str(late.bytes()));
  EXPECT_THAT(piped.err, HasSubstr("checked 702 tags"));
  EXPECT_THAT(
      flvhost("play " + dir.path("late.flv") + " --aggregates --set MaxAggMsgSize=20000 --verify").out,
      testing::ContainsRegex("checked   702 tags, .*: each one equal"));
}

// Played, followed, or recorded anew.
TEST(Flvhost, deliversEveryWholeTagOfADamagedFile) {
  const TempDir dir;
  const FlvBuilder film = movie();
  const auto& tags = film.tags();
  const auto damaged = [&] { return Damage(film); };
  std::string verified;
  const struct {
    const char* name;
    Damage damage;
    const char* recorded = "standard input: damaged; ";
  } kCases[] = {
      {"a header, and the start of a segment",
       damaged().overwrite(tags[100].position, Bytes(11)).overwrite(262'000, Bytes(38'000))},
      {"junk between tags", damaged().insert(tags[50].position, noise(5000))},
      {"junk inside a tag", damaged().insert(tags[50].position + 300, noise(5000))},
      {"zeros", damaged().overwrite(100'000, Bytes(65'536))},
      {"bytes missing", damaged().remove(100'000, 7777)},
      {"two holes", damaged().remove(50'000, 3000).remove(400'000, 9000)},
      {"a wrong size field", damaged().overwrite(tags[20].end() - 4, {0, 0, 0, 99}), ""},
  };
  for (const auto& c : kCases) {
    const std::string bad = dir.file("bad.flv", c.damage.bytes()), again = dir.path("again.flv");
    const auto expectWhole = [&](const Outcome& result, const std::string& line, const std::string& out) {
      SCOPED_TRACE(c.name + line);
      EXPECT_EQ(result.exitCode, line.empty() ? 0 : 1);
      EXPECT_THAT(result.err, HasSubstr(line));
      const TagList got = tagsOf(out), wanted = c.damage.whole();
      for (const auto& tag : wanted) EXPECT_EQ(std::ranges::count(got, tag), 1) << tag.time;
      EXPECT_LE(got.size(), wanted.size() + 2);
    };
    const Outcome played = flvhost("play " + bad + " -o - --verify");
    expectWhole(played, "tags found behind damage: ", played.out);
    EXPECT_THAT(played.err, HasSubstr("damaged between bytes ")) << c.name;
    const Outcome followed = flvhost("follow " + bad + " -o - --until-idle 0");
    expectWhole(followed, "damaged between bytes ", followed.out);
    const Outcome recorded = flvhost("record " + again + " --keep-metadata --overwrite", c.damage.bytes());
    expectWhole(recorded, c.recorded, str(TempDir::read(again)));
    verified += played.err + "\n";
  }
  EXPECT_THAT(verified, HasSubstr("each one equal"));
}

#if !defined(ORV_ASAN) && !defined(ORV_TSAN)  // They take more address space than any limit leaves.
// The largest tag, filled with the dearest arrays.
TEST(Flvhost, metadataTakesMemoryInProportion) {
  const TempDir dir;
  Bytes metadata = bytesOf("02 000A'onMetaData' 0A 003FFFF0");
  for (u32 i = 0; i < 0x3FFFF0; ++i) metadata.insert(metadata.end(), {3, 0, 0, 9});
  const std::string large = dir.file("large.flv", movie(700, FlvBuilder().tag(18, 0, metadata)).bytes());
  for (const std::string command : {"meta ", "contexts "}) {
    const Outcome result = Running(command + large, "ulimit -v 488281;").wait();
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(result.out.ends_with("}\n"));
  }
}
#endif

}  // namespace
}  // namespace orv::host::test
