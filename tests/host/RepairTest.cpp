#include "host/repair/Repair.h"

#include <gtest/gtest.h>

#include "Damage.h"
#include "host/check/Checker.h"
#include "host/files/FileSource.h"
#include "support/HeapWatch.h"

namespace orv::host {
namespace {

using namespace test;

Bytes repaired(const Bytes& bytes, const RepairJob& job = {}) {
  const TempDir dir;
  MemorySource source(bytes);
  OutputFile out(dir.path("out.flv"), Existing::refuse, FileIdentity{});
  repair(source, out, job, [](i64) {});
  return TempDir::read(dir.path("out.flv"));
}

// All that a check says against it.
std::string faults(const Bytes& bytes) {
  MemorySource source(bytes);
  Checker checker(source);
  checker.run([](i64) {});
  std::string text;
  for (const Finding& finding : checker.findings().kept())
    text += std::string(infoOf(finding.code).text) + ": " + finding.text + "\n";
  return text;
}

// Behind the metadata, which always come first.
TagList mediaOf(const Bytes& bytes) {
  TagList tags = tagsOf(str(bytes));
  if (!tags.empty()) tags.erase(tags.begin());
  return tags;
}

std::vector<u32> timesOf(const Bytes& bytes) {
  std::vector<u32> times;
  for (const auto& tag : mediaOf(bytes)) times.push_back(tag.time);
  return times;
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
      EXPECT_EQ(faults(out), "");
      EXPECT_EQ(out[4], 5);
    }
  }
}

TEST(Repair, mendsTimesIfAsked) {
  const auto fixedTimes = [](const Bytes& bytes) { return timesOf(repaired(bytes, {{true, false}, false})); };
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
  EXPECT_EQ(faults(repaired(film)), "unknown-type: type 99\n");
  EXPECT_EQ(faults(repaired(film, {{false, true}, false})), "");
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

}  // namespace
}  // namespace orv::host
