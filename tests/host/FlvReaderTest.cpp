#include "FlvReader.h"

#include <gmock/gmock.h>

#include "support/FlvBuilder.h"

namespace orv::host {
namespace {

using orv::test::Bytes;
using orv::test::FlvBuilder;
using orv::test::tagBytes;
using testing::StartsWith;

struct Taken {
  u8 type;
  u32 time;
  Bytes data;
  bool operator==(const Taken&) const = default;
};

struct Result {
  std::vector<Taken> tags;
  std::string fault;
  std::string end;
  bool operator==(const Result&) const = default;
};

Result readInPieces(const Bytes& bytes, std::size_t piece) {
  Result result;
  FlvReader reader([&](const Tag& tag) {
    result.tags.push_back({tag.type, tag.time, {tag.data, tag.data + tag.size}});
  });
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    if (!reader.feed(bytes.data() + at, std::min(piece, bytes.size() - at))) break;
  }
  result.fault = reader.fault();
  result.end = reader.explainEnd();
  return result;
}

TEST(FlvReader, givesTheSameTagsInPiecesOfAnySize) {
  const FlvBuilder file = FlvBuilder(30).tag(18, 0, 0).tag(9, 10, 300).tag(41, 0x01020304, 5).tag(22, 7, 40);
  const Result whole = readInPieces(file.bytes(), file.bytes().size());
  ASSERT_EQ(whole.tags.size(), 4u);
  EXPECT_EQ(whole.tags[2].type, 41);
  EXPECT_EQ(whole.tags[2].time, 0x01020304u);
  EXPECT_EQ(whole.end, "");
  for (std::size_t piece = 1; piece < file.bytes().size(); ++piece) {
    ASSERT_EQ(readInPieces(file.bytes(), piece), whole) << piece;
  }
}

TEST(FlvReader, cutAnywhereItGivesTheWholeTagsBefore) {
  const FlvBuilder file = FlvBuilder().interleaved(4);
  for (std::size_t size = 0; size < file.bytes().size(); ++size) {
    const Result cut =
        readInPieces({file.bytes().begin(), file.bytes().begin() + static_cast<long>(size)}, 64);
    u32 whole = 0;
    bool atBorder = size == 13;
    for (const auto& tag : file.tags()) {
      whole += tag.end() <= static_cast<i64>(size);
      atBorder |= tag.end() == static_cast<i64>(size);
    }
    ASSERT_EQ(cut.tags.size(), whole) << size;
    ASSERT_EQ(cut.fault, "") << size;
    ASSERT_EQ(cut.end.empty(), atBorder || (size >= 9 && size < 13)) << size;
  }
}

TEST(FlvReader, saysWhereAStreamCantBeFollowed) {
  const Bytes good = FlvBuilder().tag(8, 0, 100).bytes();
  const auto behind = [&](const Bytes& more) {
    Bytes bytes = good;
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
  };
  const auto sizeField = [](u32 size) { return FlvBuilder().tag(8, 0, 100).trailing(size).bytes(); };
  const struct {
    Bytes bytes;
    std::size_t tags;
    const char* fault;
  } kStreams[] = {
      {Bytes(20), 0, "isn't an FLV file: it starts with \"\\x00"},
      {{'F', 'L', 'V', 2, 5, 0, 0, 0, 9, 0, 0, 0, 0}, 0, "has FLV version 2"},
      {{'F', 'L', 'V', 1, 5, 0, 0, 0, 8, 0, 0, 0, 0}, 0, "has a header that claims 8 bytes"},
      {behind(tagBytes(23, 0, Bytes(9))), 1, "is damaged: no tag starts at byte 128 (type 23)"},
      {behind(tagBytes(0x48, 0, Bytes(9))), 1, "is damaged: no tag starts at byte 128 (type 72)"},
      {sizeField(112), 0, "is damaged: the tag at byte 13 has 111 bytes, and 112 behind it"},
      {sizeField(100), 1, ""},
      {sizeField(0), 1, ""},
      {behind({9, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0}), 1, ""},
  };
  for (const auto& stream : kStreams) {
    const Result result = readInPieces(stream.bytes, 7);
    EXPECT_EQ(result.tags.size(), stream.tags) << stream.fault;
    EXPECT_THAT(result.fault, *stream.fault ? testing::Matcher<std::string>(StartsWith(stream.fault))
                                            : testing::Matcher<std::string>(""));
  }
}

}  // namespace
}  // namespace orv::host
