#include "host/check/Checker.h"

#include <gtest/gtest.h>

#include "Damage.h"

namespace orv::host {
namespace {

using namespace test;

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

}  // namespace
}  // namespace orv::host
