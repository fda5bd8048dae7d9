#include "host/flv/FlvReader.h"

#include "Damage.h"
#include "host/flv/Walker.h"

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
      FlvReader reader(into(tags));
      for (i64 at = 0; at < size; at += piece) {
        const auto count = static_cast<std::size_t>(std::min(piece, size - at));
        ASSERT_TRUE(reader.feed(file.bytes().data() + at, count)) << reader.fault();
      }
      ASSERT_TRUE(tags == whole) << size << " in pieces of " << piece;
      ASSERT_EQ(reader.explainEnd().empty(), atBorder) << size << " in pieces of " << piece;
    }
  }
}

// As a walk through the same bytes does, in pieces of any size, and without more memory than 20 MiB of junk
// take.
TEST(FlvReader, goesOnBehindDamageAsAWalkDoes) {
  const FlvBuilder film = movie(200);
  const i64 at = film.tags()[80].position;
  const Damage damages[] = {
      Damage(film).insert(at, noise(1000)).insert(film.tags()[9].position, noise(7)),
      Damage(film).overwrite(at + 500, Bytes(30'000)),
      Damage(film).remove(at + 500, 5000).remove(film.tags()[150].position - 3, 500),
      Damage(film).insert(at, film.bytes()),
      Damage(film).insert(at, noise(20 << 20)).insert(film.tags()[90].position, noise(100)),
      Damage(film).overwrite(film.tags().back().end() - 4, {0, 0, 0, 99}),
      Damage(film).insert(film.size(), noise(40)),
  };
  for (const Damage& damage : damages) {
    const Bytes bytes = damage.bytes();
    TagList walked;
    u64 lost = 0;
    MemorySource source(bytes);
    for (Walker walker(source); const auto step = walker.next();) {
      const auto* const tag = std::get_if<WalkedTag>(&*step);
      if (tag) into(walked)(tag->tag);
      if (!tag) lost += static_cast<u64>(std::get<Break>(*step).to - std::get<Break>(*step).from);
    }
    for (const std::size_t piece : {std::size_t{333}, std::size_t{65536}, bytes.size()}) {
      TagList tags;
      u64 leftOut = 0;
      FlvReader reader(into(tags), [&](u64, u64 size) { leftOut += size; });
      for (std::size_t i = 0; i < bytes.size(); i += piece) {
        ASSERT_TRUE(reader.feed(&bytes[i], std::min(piece, bytes.size() - i)));
      }
      reader.finish();
      EXPECT_TRUE(tags == walked) << &damage - damages << ' ' << piece << ' ' << tags.size();
      EXPECT_TRUE(leftOut == lost || !reader.explainEnd().empty()) << &damage - damages;
    }
  }
}

}  // namespace
}  // namespace orv::host
