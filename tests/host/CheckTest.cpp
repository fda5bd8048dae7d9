#include "host/check/Checker.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "Damage.h"
#include "Program.h"

namespace orv::host {
namespace {

using namespace test;
using nlohmann::json;
using testing::HasSubstr;

Bytes number(double value) {
  u64 bits;
  std::memcpy(&bits, &value, sizeof bits);
  Bytes bytes{0};
  for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<u8>(bits >> shift));
  return bytes;
}

Bytes metadataOf(const std::vector<std::pair<std::string, Bytes>>& entries) {
  Bytes payload = bytesOf("02 000A'onMetaData' 08 00000000");
  for (const auto& [key, value] : entries) {
    payload = join(join(payload, bytesOf("00" + std::string{"0123456789ABCDEF"[key.size() / 16]} +
                                         "0123456789ABCDEF"[key.size() % 16] + "'" + key + "'")),
                   value);
  }
  return join(payload, bytesOf("000009"));
}

Bytes indexOf(double position, double seconds) {
  const auto list = [](double value) { return join(bytesOf("0A 00000001"), number(value)); };
  Bytes index = join(bytesOf("03 000D'filepositions'"), list(position));
  index = join(join(index, bytesOf("0005'times'")), list(seconds));
  return join(index, bytesOf("000009"));
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
    return Film(metadataOf({{"keyframes", indexOf(position, seconds)}})).frames().bytes();
  };
  const auto first = static_cast<double>(Film(metadataOf({{"keyframes", indexOf(0, 0)}})).size());
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
      {Film(metadataOf({{"duration", number(2)}, {"width", number(0)}, {"videocodecid", number(2)}}))
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

TEST(CheckCommand, endsWith1ForErrorsAlone) {
  const TempDir dir;
  const std::string film = dir.file("film.flv", Film().frames().bytes());
  const std::string late = dir.file("late.flv", Film(Bytes{}).frames().bytes());
  const std::string torn = dir.file("torn.flv", Damage(Film().frames()).remove(1889, 5).bytes());
  EXPECT_EQ(flvhost({"check", film, late}).exitCode, 0);
  EXPECT_EQ(flvhost({"check", film, torn}).exitCode, 1);
  EXPECT_EQ(flvhost({"check", torn, dir.path("none.flv")}).exitCode, 2);
  EXPECT_THAT(flvhost({"check", late}).out, HasSubstr("1 warning"));
}

TEST(CheckCommand, tellsProgramsWhatAndWhere) {
  const TempDir dir;
  const Film film = Film().frames();
  const Bytes junked = Damage(film).insert(film.tags()[9].position, noise(99)).bytes();
  const Outcome piped = flvhost({"check", "--json", "-"}, junked);
  const json file = json::parse(piped.out)["files"][0];
  EXPECT_EQ(file["size"], junked.size());
  EXPECT_EQ(file["tags"], 101);
  EXPECT_EQ(file["errors"], 1);
  EXPECT_EQ(file["findings"][0]["code"], "junk");
  EXPECT_EQ(file["findings"][0]["position"], film.tags()[9].position);
  EXPECT_EQ(file["findings"][0]["time"], 60);
}

TEST(TagsCommand, listsTheTagsAndTheDamage) {
  const TempDir dir;
  Film film;
  film.with(9, 0, bytesOf("90 'hvc1' 01"))
      .with(9, 40, bytesOf("91 'hvc1' 000028 01"))
      .with(8, 40, Bytes{0x2F})
      .with(99, 80, Bytes{1});
  const std::string file = dir.file("film.flv", join(film.bytes(), noise(20)));
  EXPECT_EQ(flvhost({"tags", file}).out,
            "      POSITION  TIME              SIZE  TYPE     CODEC\n"
            "            13  00:00:00.000        21  data     onMetaData\n"
            "            49  00:00:00.000         6  video    H.265 (hvc1), set-up\n"
            "            70  00:00:00.040         9  video    H.265 (hvc1), key frame, shown +40 ms\n"
            "            94  00:00:00.040         1  audio    MP3, 44.1 kHz, stereo, 16 bit\n"
            "           110  00:00:00.080         1  other    type 99\n"
            "           126                      20  junk\n");
  const std::string lines = flvhost({"tags", "--json", "--from", "40ms", "--to", "80ms", file}).out;
  const json first = json::parse(lines.substr(0, lines.find('\n')));
  EXPECT_EQ(first, (json{{"position", 70},
                         {"time", 40},
                         {"type", 9},
                         {"kind", "video"},
                         {"size", 9},
                         {"sizeField", 20},
                         {"codec", "H.265 (hvc1)"},
                         {"codecId", 0x68766331},
                         {"packet", "frames"},
                         {"keyFrame", true},
                         {"compositionTime", 40}}));
  EXPECT_EQ(std::ranges::count(lines, '\n'), 2);
}

}  // namespace
}  // namespace orv::host
