#include "host/check/Checker.h"

#include <gtest/gtest.h>

#include <bit>

#include "Damage.h"

namespace orv::host {
namespace {

using namespace test;

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

}  // namespace
}  // namespace orv::host
