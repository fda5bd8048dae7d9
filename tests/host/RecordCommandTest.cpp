#include <gmock/gmock.h>
#include <sys/stat.h>

#include "Movie.h"
#include "Program.h"

namespace orv::host::test {
namespace {

using testing::HasSubstr;

// A stream whose recording is its copy: its flags are audio, video, and the module's own mark for all else.
FlvBuilder liveStream(u32 tags = 100, u32 first = 0) {
  const Bytes metadata = onMetaData("0005'width' 00 4074000000000000");
  return movie(tags, FlvBuilder(flv::kFileHeaderSize, 13).tag(18, first, metadata), first);
}

class RecordCommandTest : public testing::Test {
 protected:
  TempDir dir;
  const std::string file = dir.path("live.flv");
  const std::string copy = dir.path("copy.flv");

  std::string call(const std::string& options) const {
    return "record " + file + " --keep-metadata --codecs classic " + options;
  }
  Outcome record(const Bytes& input, const std::string& options) const {
    return flvhost(call(options), input);
  }
  static void put(const std::string& name, const Bytes& bytes) {
    std::filesystem::remove(name);
    if (!bytes.empty()) std::ofstream(name) << str(bytes);
  }
  // Whether the file comes to hold `bytes` while the recording goes on.
  bool comesToHold(const Bytes& bytes) const {
    return eventually([&] { return TempDir::read(file) == bytes; });
  }
  void expectBothHold(const Bytes& bytes, const std::string& label = "") const {
    for (const std::string& name : {file, copy}) {
      EXPECT_EQ(std::filesystem::exists(name), !bytes.empty()) << name << label;
      EXPECT_EQ(str(TempDir::read(name)), str(bytes)) << name << label;
    }
  }
};

TEST_F(RecordCommandTest, saysWhatItCantRecordAndGoesOn) {
  const Bytes avc{0x17, 1, 0, 0, 0, 9}, aac{0xAF, 1, 9}, h263{0x12, 9}, mp3{0x2F, 9}, none;
  const Bytes good = liveStream().bytes();
  const Bytes entries = join(tagBytes(9, 7, h263), tagBytes(8, 9, mp3));
  const Bytes torn(entries.begin(), entries.end() - 10);
  const Bytes unreadable = bytesOf("02 000A'onMetaData' 03 0001'a' 1E");
  const auto stream = [](u8 flags = 0) { return FlvBuilder(flv::kFileHeaderSize, flags); };
  const Bytes soundAlone = stream(4).tag(8, 5, mp3).bytes();
  const struct {
    Bytes input;
    int exitCode;
    const char* line;
    Bytes recorded;  // Empty: no file is left.
  } kInputs[] = {
      {none, 1, "standard input: is empty", none},
      {bytesOf("'RIFF' 0000000000"), 1, "is not an FLV file: it starts with \"RIFF\"", none},
      {stream().bytes(), 1, "nothing could be recorded, and no file is left", none},
      {FlvBuilder(8).bytes(), 1, "its header claims 8 bytes", none},
      {join(good, {9, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0}), 0, "ends inside a tag; 11 bytes of it came",
       good},
      {join(good, tagBytes(23, 0, mp3)), 0, "refused: 1 of type 23", good},
      {join(good, Bytes(50)), 1, "standard input: is damaged from byte 101565 on; 50 bytes are left out",
       good},
      {stream().tag(8, 5, mp3).trailing(14).bytes(), 0, "1 tag, 2 bytes", soundAlone},
      {stream().tag(8, 5, mp3).trailing(2).bytes(), 0, "1 tag, 2 bytes", soundAlone},
      {stream().tag(8, 5, mp3).trailing(0).bytes(), 0, "1 tag, 2 bytes", soundAlone},
      {stream().tag(9, 0, avc).tag(8, 0, aac).tag(9, 40, avc).bytes(), 1,
       "nothing could be recorded, and no file is left; refused: 1 AAC, 2 H.264", none},
      {stream().tag(18, 0, onMetaData()).tag(9, 0, avc).bytes(), 1, "refused: 1 H.264", none},
      {stream().tag(9, 5, avc).tag(8, 5, mp3).bytes(), 1, "H.264 is left out, as --codecs classic asks",
       soundAlone},
      {stream().tag(3, 0, mp3).tag(8, 5, mp3).bytes(), 0, "refused: 1 of type 3", soundAlone},
      {stream().tag(18, 0, unreadable).tag(8, 5, mp3).bytes(), 0, "refused: 1 unreadable metadata",
       soundAlone},
      {stream().tag(22, 7, entries).bytes(), 0, "2 tags, 4 bytes", join(stream(5).bytes(), entries)},
      {stream().tag(22, 7, torn).bytes(), 0, "refused: 1 torn aggregates", stream(1).tag(9, 7, h263).bytes()},
  };
  for (const auto& c : kInputs) {
    put(file, {});
    put(copy, {});
    const Outcome result = record(c.input, "--backup " + copy);
    EXPECT_EQ(result.exitCode, c.exitCode) << c.line << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.line));
    expectBothHold(c.recorded, c.line);
  }
}

TEST_F(RecordCommandTest, whatExistsIsTouchedOnlyAsAskedFor) {
  const Bytes old = liveStream(50).bytes(), more = liveStream(50, 5000).bytes();
  const Bytes behind = liveStream(50, 1000).bytes();  // Where `old` ends, and a frame later.
  const Bytes both = join(old, behind, 13), asTheyCame = join(old, more, 13), alien{'R', 'I', 'F', 'F'}, none;
  const Bytes torn(old.begin(), old.end() - 100), mended = join(torn, liveStream(50, 980).bytes(), 13);
  const Bytes noTags = FlvBuilder().bytes();
  const Bytes refused = FlvBuilder().tag(18, 0, onMetaData()).tag(9, 0, Bytes{0x17, 1, 0, 0, 0, 9}).bytes();
  const Bytes restarted = join(FlvBuilder().tag(18, 0, onMetaData()).bytes(), more, 13);
  const struct {
    std::string options;
    Bytes file, copy;  // Before. Empty: not there.
    int exitCode;
    const char* line;
    Bytes fileAfter, copyAfter;
    std::optional<Bytes> input = {};  // In place of `more`.
  } kCases[] = {
      {"", old, none, 2, "exists; --append adds to it", old, none},
      {"", none, old, 2, "is not empty; --overwrite replaces it", none, old},
      {"--overwrite", old, old, 0, "51 tags", more, more},
      {"--overwrite", none, none, 0, "51 tags", more, more},
      {"--overwrite", alien, none, 1, "is not an FLV file", alien, none},
      {"--overwrite", old, alien, 2, "is not an FLV file; --overwrite leaves", old, alien},
      {"--overwrite", old, none, 1, "is empty", old, none, none},  // An encoder that fails to start.
      {"--overwrite", old, none, 1, "the file stays as it was", old, none, noTags},
      {"--overwrite", old, old, 1, "the file stays as it was", old, old, refused},
      {"--append", old, none, 1, "the file stays as it was", old, none, noTags},
      {"--append", old, old, 1, "the file stays as it was", old, old, refused},
      {"--append", old, none, 0, "51 tags", both, both},
      {"--append", old, none, 0, "51 tags", both, both, restarted},  // Its second head is dropped.
      {"--append", old, old, 0, "51 tags", both, both},
      {"--append=as-is", old, old, 0, "51 tags", asTheyCame, asTheyCame},
      {"--append", old, torn, 2, "differs from", old, torn},
      {"--append", none, none, 0, "51 tags", more, more},
      {"--append", alien, none, 1, "is not an FLV file", alien, none},
      {"--append", torn, none, 1, "flvhost repair makes a sound file of it", torn, none},
      {"--append --force", torn, none, 0, "no whole tag in its last", mended, mended},
  };
  for (const auto& c : kCases) {
    put(file, c.file);
    put(copy, c.copy);
    const Outcome result = record(c.input.value_or(more), c.options + " --backup " + copy);
    const std::string label = c.options + c.line;
    EXPECT_EQ(result.exitCode, c.exitCode) << label << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.line)) << label;
    EXPECT_TRUE(TempDir::read(file) == c.fileAfter) << label;
    EXPECT_TRUE(TempDir::read(copy) == c.copyAfter) << label;
  }
}

// As log rotation does it.
TEST_F(RecordCommandTest, aFileThatIsMovedAwayIsFollowedByAWholeOne) {
  FlvBuilder stream(flv::kFileHeaderSize, 13);
  const Bytes videoSetup{0x17, 0, 1, 2, 3}, audioSetup{0xAF, 0, 9};
  stream.tag(18, 0, onMetaData()).tag(9, 0, videoSetup).tag(8, 0, audioSetup);
  for (u8 i = 0; i < 100; ++i) {
    const Bytes frame{static_cast<u8>(i % 50 == 1 ? 0x17 : 0x27), 1, 0, 0, 0, i}, sound{0xAF, 1, i};
    stream.tag(i % 5 ? 9 : 8, i * 20u, i % 5 ? frame : sound);
  }
  constexpr std::size_t kSplit = 32, kNextKey = 3 + 51;
  const std::size_t tags = stream.tags().size();
  const u32 time = stream.tags()[kSplit].time;  // A picture, which waits for a key frame and is dropped.
  const Bytes first = cut(stream, 0, kSplit);
  Bytes second = join(join(cut(stream, 0, 1), tagBytes(9, time, videoSetup)), tagBytes(8, time, audioSetup));
  for (std::size_t i = kSplit; i < kNextKey; ++i) {
    if (stream.tags()[i].type == flv::kTypeAudio) second = join(second, cut(stream, i, i + 1));
  }
  second = join(second, cut(stream, kNextKey, tags));
  Running run("record " + file + " --keep-metadata --flush-every 10ms --backup " + copy);
  run.feed(first);
  ASSERT_TRUE(comesToHold(first));
  std::filesystem::rename(file, dir.path("live.1.flv"));
  run.feed(cut(stream, kSplit, 40));
  ASSERT_TRUE(eventually([&] { return TempDir::read(file).size() > 13; }));
  run.feed(cut(stream, 40, tags));
  const Outcome result = run.wait();
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("was moved away; recording continues in a new file"));
  EXPECT_THAT(result.err, HasSubstr("17 without a key frame left out"));
  expectBothHold(second);
  EXPECT_EQ(TempDir::read(dir.path("live.1.flv")), first);
  EXPECT_EQ(TempDir::read(dir.path("copy.flv.1")), first);
}

// Set-ups that change in the middle of a file: players find those of their place, with any list of places
// beside it.
TEST_F(RecordCommandTest, setupsThatChangeAreFoundFromAnyPlace) {
  constexpr u32 kStretch = 600;  // Tags, of more bytes than a segment has.
  FlvBuilder stream(flv::kFileHeaderSize, 5);
  const auto avc = [](u8 i) { return Bytes{0x17, 0, 0, 0, 0, i}; };
  const auto aac = [](u8 i) { return Bytes{0xAF, 0, i}; };
  std::vector<std::size_t> changes;
  for (u32 i = 0; i < 4 * kStretch; ++i) {
    const u32 time = i * 20;
    const u8 stretch = u8(i / kStretch);
    if (i % kStretch == 0) changes.push_back(stream.tags().size());
    if (i % 300 == 0) stream.tag(9, time, avc(stretch));  // Each is sent twice.
    if (i % (2 * kStretch) == 0) {
      changes.push_back(stream.tags().size());
      stream.tag(8, time, aac(stretch));
    }
    Bytes frame = orv::test::payload(9, 1000, i);
    frame[0] = i % 50 ? 0x27 : 0x17, frame[1] = 1;
    stream.tag(9, time, frame);
  }
  const auto list = [&](std::vector<std::size_t> places, i64 shift = 0, i64 from = 0) {
    std::string text = "flvhost set-ups 1\ncovers " + std::to_string(from) + " " +
                       std::to_string(stream.bytes().size()) + "\n";
    for (const std::size_t at : places) {
      const auto& tag = stream.tags()[at];
      for (const i64 number : {tag.position + shift, i64{tag.time}, i64{tag.size}, i64{tag.type}})
        text += std::to_string(number) + " ";
      text += tag.type == 9 ? "7\n" : "10\n";
    }
    return text;
  };
  const auto found = [&](const std::string& name, u32 stretch) {
    const TagList tags =
        tagsOf(flvhost("play " + name + " -o - --to 99 --from " + std::to_string(stretch * 12 + 9)).out);
    return std::pair{tags[0].data, tags[1].data};
  };

  const std::size_t half = changes[3], appended = changes[4];
  const std::size_t tags = stream.tags().size();
  const std::string beside = file + ".setups";
  const Bytes rest = join(FlvBuilder().bytes(), cut(stream, appended, tags));
  const i64 end = stream.tags()[appended].position;
  const std::vector<std::size_t> later(changes.begin() + 4, changes.end());
  for (const bool isKept : {false, true}) {
    const std::string begun = "record --overwrite --keep-metadata " + file;
    EXPECT_EQ(flvhost(begun, cut(stream, 0, appended)).exitCode, 0);
    EXPECT_NE(str(TempDir::read(beside)), "");
    if (!isKept) std::filesystem::remove(beside);  // What stands in front of the rest is looked for.
    EXPECT_EQ(flvhost("record --append=as-is --flush-every 1ms " + file, rest).exitCode, 0);
    ASSERT_TRUE(TempDir::read(file) == stream.bytes());
    EXPECT_EQ(str(TempDir::read(beside)), isKept ? list(changes) : list(later, 0, end));
    EXPECT_EQ(found(file, 2), (std::pair{avc(2), aac(2)})) << isKept;
    EXPECT_EQ(found(file, 1), (std::pair{avc(1), aac(0)})) << isKept;
  }

  const std::string huge = list({changes[0]}).substr(0, 40) + "99999999999999999999 1 1 9 7\n";
  for (const std::string& text : {list(changes), list(changes, 1), list({changes[0]}, 700'000), huge,
                                  std::string("flvhost set-ups 1\n"), std::string()}) {
    std::ofstream(beside) << text;
    for (u32 i = 0; i < 4; ++i) {
      EXPECT_EQ(found(file, i), (std::pair{avc(u8(i)), aac(i < 2 ? 0 : 2)})) << text << i;
    }
  }
  std::ofstream(beside) << list({changes[0], changes[1], changes.back()});
  EXPECT_EQ(found(file, 2), (std::pair{avc(0), aac(0)})) << "what it says is believed, and saves reading";

  Running run("record --keep-metadata --overwrite --flush-every 1ms " + file);
  run.feed(cut(stream, 0, half));
  ASSERT_TRUE(comesToHold(cut(stream, 0, half)));
  std::filesystem::rename(file, copy);
  run.feed(cut(stream, half, tags));
  EXPECT_EQ(run.wait().exitCode, 0);
  EXPECT_THAT(str(TempDir::read(copy + ".setups")), HasSubstr("flvhost"));
  EXPECT_EQ(found(copy, 1), (std::pair{avc(1), aac(0)}));
  EXPECT_EQ(tagsOf(str(TempDir::read(file)))[0].data, avc(1)) << "what held where the old file ended";
  EXPECT_EQ(found(file, 3), (std::pair{avc(3), aac(2)}));
}

// A second one would tear the tags of the first.
TEST_F(RecordCommandTest, oneFileIsRecordedByOneAtATime) {
  const FlvBuilder stream = liveStream();
  const mode_t mask = ::umask(027);
  ::umask(mask);
  Running first(call("--flush-every 10ms --backup " + copy));
  first.feed(stream.bytes());
  ASSERT_TRUE(comesToHold(stream.bytes()));
  const std::string other = dir.path("other.flv"), in = dir.file("in.flv", stream.bytes());
  for (const std::string& second :
       {call("--append"), call("--overwrite"), "record " + other + " --backup " + file,
        "record " + other + " --overwrite --backup " + copy, "play " + in + " --force -o " + file,
        "follow " + in + " --force -o " + file}) {
    const Outcome refused = flvhost(second, stream.bytes());
    EXPECT_EQ(refused.exitCode, 2) << second;
    EXPECT_THAT(refused.err, HasSubstr(" by another flvhost")) << second;
    EXPECT_FALSE(std::filesystem::exists(other)) << second;
  }
  const Outcome recorded = first.wait();
  EXPECT_EQ(recorded.exitCode, 0);
  EXPECT_EQ(recorded.out, "");
  EXPECT_THAT(recorded.err, HasSubstr("101 tags, 100037 bytes of data, 00:00:00.000 to 00:00:01.980, in "));
  expectBothHold(stream.bytes());
  for (const std::string& name : {file, copy}) {
    struct stat status {};
    ASSERT_EQ(::stat(name.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0666u & ~mask) << name;
  }
}

TEST_F(RecordCommandTest, flushesThoughNoMoreComesAndEndsWholeOnASignal) {
  const FlvBuilder stream = liveStream();
  const Bytes last = tagBytes(8, 5000, {0x2F, 1, 2, 3}), whole = join(stream.bytes(), last);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    const bool isStaged = number == SIGTERM;  // Flushed by the signal alone.
    Running run(call(isStaged ? "--overwrite --flush-every 1:00:00" : "--overwrite --flush-every 50ms"));
    run.feed(stream.bytes());
    ASSERT_TRUE(isStaged || comesToHold(stream.bytes())) << number;
    run.feed(join(last, {9, 0, 0}));  // And a part of a tag.
    ASSERT_TRUE(isStaged ? eventually([&] { return run.hasTakenAll() && TempDir::read(file).size() == 13; })
                         : comesToHold(whole))
        << number;
    run.signal(number);
    const Outcome result = run.wait();
    EXPECT_EQ(result.exitCode, 0) << number << result.err;
    EXPECT_TRUE(TempDir::read(file) == whole) << number;
  }
}

TEST_F(RecordCommandTest, aFullDiskIsReportedOnceAndEndsTheRecording) {
  const FlvBuilder stream = liveStream(1000);
  const Bytes flushed = cut(stream, 0, 100);
  Running run(call("--flush-every 10ms"), "ulimit -f 400;");  // In blocks of 512 bytes.
  run.feed(flushed);
  ASSERT_TRUE(comesToHold(flushed));
  run.feed(cut(stream, 100, 1001));
  const Outcome result = run.wait();
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.err,
              testing::ContainsRegex("live.flv: only [0-9]+ of [0-9]+ bytes written at position [0-9]+: File "
                                     "too large\n.*recording ends here[^\n]*\n$"));
  const Bytes left = TempDir::read(file);
  ASSERT_EQ(left.size(), 400u * 512);
  EXPECT_TRUE(std::equal(left.begin() + 13, left.end(), stream.bytes().begin() + 13));
  const Outcome played = flvhost("play " + file + " -o -");
  EXPECT_GT(played.out.size(), flushed.size()) << played.err;
}

}  // namespace
}  // namespace orv::host::test
