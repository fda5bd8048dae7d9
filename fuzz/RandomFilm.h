// Messages and whole files for structured fuzz targets: sound ones, odd ones, and files with damage.

#pragma once

#include <string>
#include <string_view>

#include "Choices.h"
#include "support/FlvBuilder.h"
#include "support/Holders.h"

namespace orv::test {

inline Bytes textOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

// "onMetaData" with room for all that a flush brings up to date.
inline Bytes publisherMetadata(bool asArray) {
  using namespace std::string_view_literals;
  const auto number = "\0\0\0\0\0\0\0\0\0"sv;
  std::string out("\2\0\12onMetaData"sv);
  out += asArray ? "\10\0\0\0\4"sv : "\3"sv;
  for (const auto key : {"\0\10duration"sv, "\0\14videocodecid"sv, "\0\14audiocodecid"sv})
    (out += key) += number;
  out += "\0\14canSeekToEnd\1\0"sv;
  out += "\0\0\11"sv;
  return textOf(out);
}

inline Bytes randomData(Choices& choose) {
  using namespace std::string_view_literals;
  switch (choose.below(8)) {
    case 0:
    case 1:
    case 2:
      return publisherMetadata(choose.oneIn(2));
    case 3:
      return textOf("\2\0\11onXMPData\2\0\3abc"sv);
    case 4:
      return textOf("\2\0\21|AdditionalHeader\3\0\0\11"sv);
    case 5:
      return textOf("\2\0\12onMetaData\x7F"sv);  // A marker that AMF0 doesn't know.
    case 6: {
      Bytes out = publisherMetadata(true);
      out.resize(choose.below(static_cast<u32>(out.size())));
      return out;
    }
    default: {
      Bytes out(choose.below(40));
      for (u8& byte : out) byte = choose.byte();
      return out;
    }
  }
}

// H.264 and AAC, which a recording leaves out unless it is set to take all.
inline bool isRefused(const Message& message) {
  if (message.data.empty()) return false;
  const u8 first = message.data[0];
  return (message.type == 9 && (first & 15) == 7) || (message.type == 8 && first >> 4 == 10);
}

// A message behind one of `lastTime`.
inline Message randomMessage(Choices& choose, u32 lastTime) {
  static constexpr u8 kTypes[] = {9, 9, 9, 8, 8, 18, 18, 41, 15, 20, 17, 22, 5};
  static constexpr u32 kSizes[] = {300, 20, 0, 1, 2, 11, 4000, 66'000, 270'000};
  const u8 type = choose.of(kTypes);
  const u32 size = kSizes[choose.byte() % 32 < 24 ? choose.below(7) : choose.below(9)];
  Bytes data = type == 18 || type == 15 ? randomData(choose) : payload(type & 0x5F, size, choose.byte());
  if (!data.empty() && choose.oneIn(8)) data[0] = choose.byte();  // Another codec, or none.
  static constexpr u32 kSteps[] = {20, 0, 40, 20, 20, 1000, 0x7FFFFFFF};
  u32 time = lastTime + choose.of(kSteps);
  if (choose.oneIn(16)) time = choose.oneIn(2) ? 0 : lastTime / 2;
  return {type, time, std::move(data)};
}

// Up to 40 tags, perhaps with damage.
inline Bytes randomFilm(Choices& choose) {
  FlvBuilder film(choose.oneIn(16) ? choose.below(60) : flv::kFileHeaderSize);
  u32 time = 0;
  for (u32 tags = choose.below(40); tags > 0; --tags) {
    const Message message = randomMessage(choose, time);
    film.tag(static_cast<u8>(message.type), time = message.time, message.data);
  }
  Bytes bytes = film.bytes();
  if (choose.oneIn(2)) return bytes;
  for (u32 edits = choose.below(6); edits > 0 && !bytes.empty(); --edits) {
    const auto at = choose.number() % bytes.size();
    if (choose.oneIn(4)) {
      const std::size_t zeros =
          std::min<std::size_t>(std::size_t{choose.below(256)} * 512, bytes.size() - at);
      std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), zeros, 0);
    } else {
      bytes[at] = choose.byte();
    }
  }
  if (choose.oneIn(4)) bytes.resize(choose.number() % (bytes.size() + 1));
  return bytes;
}

}  // namespace orv::test
