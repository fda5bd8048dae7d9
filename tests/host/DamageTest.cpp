// What damaged files hold: checked, repaired, drawn.

#include <bit>

#include "Damage.h"
#include "host/check/Checker.h"
#include "host/files/FileSource.h"
#include "host/repair/Repair.h"
#include "host/report/Timeline.h"
#include "support/HeapWatch.h"

namespace orv::host::test {
namespace {

// A number of AMF0, in the notation of the tests.
std::string number(double value) {
  char digits[20];
  std::snprintf(digits, sizeof digits, "00 %016llX", std::bit_cast<unsigned long long>(value));
  return digits;
}

Bytes indexOf(double position, double seconds) {
  return onMetaData("0009'keyframes' 03 000D'filepositions' 0A 00000001" + number(position) +
                    "0005'times' 0A 00000001" + number(seconds) + "000009");
}

// "code@position code*count ..."
std::string check(const Bytes& bytes) {
  MemorySource source(bytes);
  Checker checker(source);
  checker.run([](i64) {});
  std::string text;
  for (const auto& [code, count] : checker.findings().counts()) {
    text += (text.empty() ? "" : " ") + std::string(infoOf(code).text);
    if (count > 1) text += "*" + std::to_string(count);
  }
  return text;
}

TEST(Checker, givesEachFaultItsCode) {
  const Bytes strange = tagBytes(99, 0, noise(9)), film = Film().frames().bytes();
  const auto damaged = [] { return Damage(Film().frames()); };
  const auto indexed = [](double position, double seconds) {
    return Film(indexOf(position, seconds)).frames().bytes();
  };
  const auto first = static_cast<double>(Film(indexOf(0, 0)).size());
  const i64 at = Film().frames().tags()[50].position, size = static_cast<i64>(film.size());
  const struct {
    Bytes bytes;
    const char* codes;
  } kFilms[] = {
      {film, ""},
      {{}, "no-header no-tags"},
      {Bytes(film.begin() + 13, film.end()), "no-header"},
      {damaged().overwrite(3, {2}).bytes(), "header-version"},
      {damaged().overwrite(8, {99}).bytes(), "header-size"},
      {damaged().overwrite(12, {1}).bytes(), "first-size-field"},
      {Film(onMetaData(), 1).frames().bytes(), "header-flags"},
      {Bytes(film.begin(), film.begin() + 13), "no-tags"},
      {damaged().insert(at, noise(99)).bytes(), "junk"},
      {damaged().insert(at, Bytes(99)).bytes(), "zeros"},
      {damaged().insert(at + 12, noise(99)).bytes(), "damaged-tag"},
      {join(film, film), "second-header time-step-back*2"},
      {damaged().remove(size - 5, 5).bytes(), "torn-tail"},
      {damaged().insert(size, noise(99)).bytes(), "junk-behind"},
      {damaged().fields([](u32) { return 0u; }).bytes(), "size-field*101"},
      {damaged().insert(at, strange).bytes(), "unknown-type"},
      {damaged().overwrite(at + 10, {7}).bytes(), "stream-id"},
      {Film().frames().with(9, 990, {}).bytes(), "empty-tag"},
      {Film().frames().with(0x29, 990, {0x12}).bytes(), "encrypted"},
      {Film().frames().with(22, 990, {}).bytes(), "aggregate"},
      {Film().frames(50, 0).frames(50, 20000).frames(50, 8000).bytes(),
       "time-backward time-jump key-frame-distance"},
      {Film().frames(50, 0).frames(50, 500).bytes(), "time-step-back*2"},
      {Film().frames(50, 90).bytes(), "first-time"},
      {Film().frames(200).with(18, 0, onMetaData()).bytes(), "last-time"},
      {Film().frames(200).with(9, 6100, {0x12}).with(8, 6100, {0x2F}).bytes(), "gap"},
      {Film().frames(50).with(8, 1500, {0x2F}).with(8, 2500, {0x2F}).bytes(), "drift"},
      {Film().frames(50, 0, 0x17, 0xAF).bytes(), "no-setup*2"},
      {Film().with(9, 0, Bytes{0x17, 0}).with(8, 0, Bytes{0xAF, 0}).frames(50, 0, 0x17, 0xAF).bytes(), ""},
      {Film().frames(50, 0, 0x1F).bytes(), "unknown-codec"},
      {Film().frames(50).with(9, 1000, {0x14, 0}).bytes(), "codec-change"},
      {Film().frames(1, 0, 0x22).frames(50, 20).bytes(), "no-key-frame"},
      {Film().frames(1).frames(600, 20, 0x22).with(9, 12020, {0x12}).bytes(), "key-frame-distance"},
      {Film(Bytes{}).frames().bytes(), "no-metadata"},
      {Film(bytesOf("02 000A'onMetaData' 08 00000000 0001'a' 00")).frames().bytes(), "metadata-unreadable"},
      {Film(onMetaData("0008'duration'" + number(2) + "0005'width'" + number(0) + "000C'videocodecid'" +
                       number(2)))
           .frames()
           .bytes(),
       "metadata-wrong"},
      {indexed(first, 0), ""},
      {indexed(first + 1, 0), "index-beside"},
      {indexed(1e9, 0), "index-beside"},
      {indexed(first, 5), "index-beside"},
  };
  for (const auto& f : kFilms) EXPECT_EQ(check(f.bytes), f.codes);
}

Bytes repaired(const Bytes& bytes, const RepairJob& job = {}) {
  const TempDir dir;
  MemorySource source(bytes);
  OutputFile out(dir.path("out.flv"), Existing::refuse, FileIdentity{});
  repair(source, out, job, [](i64) {});
  return TempDir::read(dir.path("out.flv"));
}

// Behind the metadata, which always come first.
TagList mediaOf(const Bytes& bytes) {
  TagList tags = tagsOf(str(bytes));
  if (!tags.empty()) tags.erase(tags.begin());
  return tags;
}

TEST(Repair, keepsEveryWholeTagAndTellsTheTruth) {
  const FlvBuilder film = Film().frames(300);
  const i64 at = film.tags()[300].position, size = film.size();
  const auto damaged = [&] { return Damage(film); };
  const Damage kDamages[] = {
      damaged(),
      damaged().insert(at, noise(1000)),
      damaged().insert(at + 12, noise(1000)),
      damaged().overwrite(at + 12, Bytes(3000)),
      damaged().remove(at + 12, 2000),
      damaged().remove(at + 12, 2000).remove(film.tags()[50].position - 2, 300),
      damaged().fields([](u32 n) { return n; }),
      damaged().fields([](u32) { return 0u; }),
      damaged().insert(size, noise(1 << 20)),
      damaged().remove(size - 5, 5),
      damaged().remove(0, 13),
      damaged().overwrite(4, {0}),
  };
  for (const Damage& damage : kDamages) {
    for (const bool index : {false, true}) {
      const Bytes out = repaired(damage.bytes(), {{}, index});
      TagList wanted = damage.whole();
      wanted.erase(wanted.begin());  // The old metadata.
      EXPECT_TRUE(mediaOf(out) == wanted);
      EXPECT_EQ(check(out), "");
      EXPECT_EQ(out[4], 5);
    }
  }
}

TEST(Repair, mendsTimesIfAsked) {
  const auto fixedTimes = [](const Bytes& bytes) {
    std::vector<u32> times;
    for (const auto& tag : mediaOf(repaired(bytes, {{true, false}, false}))) times.push_back(tag.time);
    return times;
  };
  const auto film = [](std::initializer_list<std::pair<u8, u32>> tags) {
    Film made;
    for (const auto& [type, time] : tags) made.tag(type, time, Bytes{u8(type == 9 ? 0x12 : 0x2F), 1, 2});
    return made.bytes();
  };
  const struct {
    Bytes bytes;
    std::vector<u32> times;
  } kFilms[] = {
      {film({{9, 0}, {8, 7}, {9, 40}, {8, 33}}), {0, 7, 40, 33}},              // Well interleaved.
      {film({{9, 9000}, {9, 9040}}), {0, 40}},                                 // Starts late.
      {film({{9, 0}, {9, 40}, {9, 20}, {9, 80}}), {0, 40, 40, 80}},            // A small step back.
      {film({{9, 0}, {9, 40}, {9, 90000}, {9, 90040}}), {0, 40, 80, 120}},     // A jump.
      {film({{9, 5000}, {9, 5040}, {9, 1000}, {9, 1040}}), {0, 40, 80, 120}},  // Back by much.
      {film({{9, 0}, {18, 0}, {9, 4000}, {18, 4000}, {18, 0}}), {0, 0, 4000, 4000, 4000}},  // Data.
      {film({{9, 0xFFFFFFF0}, {9, 4}}), {0, 20}},                                           // Wraps around.
      {join(film({{9, 0}, {9, 40}}), film({{9, 0}, {9, 40}})), {0, 40, 40, 80, 120}},       // Joined.
  };
  for (const auto& f : kFilms) EXPECT_EQ(fixedTimes(f.bytes), f.times);
}

TEST(Repair, keepsTagsOfUnknownTypesUnlessToldOtherwise) {
  const Bytes film = Film().frames(2).with(99, 20, {1}).bytes();
  EXPECT_EQ(check(repaired(film)), "unknown-type");
  EXPECT_EQ(check(repaired(film, {{false, true}, false})), "");
}

// A film of 3 GiB would take no more.
TEST(Repair, needsLittleMemoryWhateverTheBytes) {
  const Bytes kFilms[] = {
      movie(20'000).bytes(), join(Film().frames().bytes(), noise(40 << 20)),
      join(FlvBuilder().tag(9, 0, 0xFFFFFF).tag(9, 40, 0xFFFFFF).bytes(), Bytes(40 << 20, 9))};
  for (const Bytes& film : kFilms) {
    const TempDir dir;
    const std::string file = dir.file("in.flv", film);
    FileSource source(file);
    OutputFile out(dir.path("out.flv"), Existing::refuse, FileIdentity{});
    const orv::test::HeapWatch watch;
    repair(source, out, {{true, false}, true}, [](i64) {});
    EXPECT_LT(watch->peak, std::size_t{60} << 20);
  }
}

TEST(Timeline, keepsEveryByteHoweverLongTheFile) {
  Timeline timeline;
  orv::test::Random random(3);
  u64 video = 0, audio = 0, keys = 0;
  const Bytes data(50, 0x12);
  for (u32 i = 0; i < 5000; ++i) {
    const u32 size = 1 + random.below(50), time = random.below(1 + i * 700'000);
    const Tag tag{i % 2 ? flv::kTypeVideo : flv::kTypeAudio, time, 0, data.data(), size};
    timeline.note(tag, mediaHead(tag));
    (i % 2 ? video : audio) += size;
    keys += i % 2;
  }
  EXPECT_LE(timeline.stretches().size(), Timeline::kMostStretches);
  for (const Timeline::Stretch& stretch : timeline.stretches()) {
    video -= stretch.video, audio -= stretch.audio, keys -= stretch.keyFrames;
  }
  EXPECT_EQ(video + audio + keys, 0u);
}

}  // namespace
}  // namespace orv::host::test
