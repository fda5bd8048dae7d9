#include "host/flv/FlvReader.h"

#include "Movie.h"

namespace orv::host {
namespace {

using namespace test;

TEST(FlvReader, givesTheWholeTagsOfAStreamCutAnywhereInPiecesOfAnySize) {
  constexpr i64 kHeader = 30;
  const FlvBuilder file =
      FlvBuilder(kHeader).tag(18, 0, 0).tag(9, 10, 60).tag(41, 0x01020304, 5).tag(22, 7, 40);
  for (i64 size = 0; size <= file.size(); ++size) {
    TagList whole;
    bool atBorder = size >= kHeader && size <= kHeader + flv::kSizeFieldSize;
    for (std::size_t i = 0; i < file.tags().size() && file.tags()[i].end() <= size; ++i) {
      whole.push_back(tagOf(file, i));
      atBorder = file.tags()[i].end() == size;
    }
    for (i64 piece = 1; piece <= size; ++piece) {
      TagList tags;
      FlvReader reader([&](const Tag& tag) {
        tags.push_back({tag.type, tag.time, {tag.data, tag.data + tag.size}});
      });
      for (i64 at = 0; at < size; at += piece) {
        const auto count = static_cast<std::size_t>(std::min(piece, size - at));
        ASSERT_TRUE(reader.feed(file.bytes().data() + at, count)) << reader.fault();
      }
      ASSERT_TRUE(tags == whole) << size << " in pieces of " << piece;
      ASSERT_EQ(reader.explainEnd().empty(), atBorder) << size << " in pieces of " << piece;
    }
  }
}

}  // namespace
}  // namespace orv::host
