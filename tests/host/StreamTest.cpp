// FLV streams walked through, read as they come, and written.

#include <gmock/gmock.h>

#include "Damage.h"
#include "host/flv/FlvWriter.h"
#include "host/flv/Walker.h"

namespace orv::host::test {
namespace {

constexpr u32 kTags = 634;

struct Walked {
  TagList tags;
  std::string breaks;  // "junk 100+20; tornTail 500+7"
  u64 lost = 0;        // Bytes.
};

Walked walk(const Bytes& bytes) {
  constexpr const char* kKinds[] = {"junk", "zeros", "damagedTag", "secondHeader", "tornTail"};
  MemorySource source(bytes);
  Walker walker(source);
  Walked walked;
  i64 end = walker.position();
  while (const auto step = walker.next()) {
    if (const auto* tag = std::get_if<WalkedTag>(&*step)) {
      EXPECT_EQ(tag->position, end);
      const Tag& t = tag->tag;
      EXPECT_TRUE(std::equal(t.data, t.data + t.size, &bytes[static_cast<std::size_t>(tag->position) + 11]));
      into(walked.tags)(t);
    } else {
      const Break& gap = std::get<Break>(*step);
      EXPECT_EQ(gap.from, end);
      EXPECT_GT(gap.to, gap.from);
      walked.lost += static_cast<u64>(gap.to - gap.from);
      walked.breaks += walked.breaks.empty() ? "" : "; ";
      walked.breaks += std::string(kKinds[static_cast<int>(gap.kind)]) + " " + std::to_string(gap.from) +
                       "+" + std::to_string(gap.to - gap.from) + (gap.isTail ? " tail" : "");
    }
    end = walker.position();
  }
  EXPECT_GE(end, static_cast<i64>(bytes.size()));
  return walked;
}

// Tags of some 1000 bytes; metadata first.
FlvBuilder film() {
  return movie(kTags - 1, FlvBuilder().tag(18, 0, onMetaData()));
}

Bytes zeros(std::size_t size) {
  return Bytes(size);
}

TEST(Walker, findsEachWholeTagInEveryClassOfDamage) {
  const FlvBuilder sound = film();
  const auto& tags = sound.tags();
  const auto damaged = [&] { return Damage(sound); };
  const i64 at = tags[300].position, half = tags[300].position + 500, size = sound.size();
  const Bytes strange = tagBytes(99, 4000, noise(300));
  const struct {
    const char* name;
    Damage damage;
    std::size_t whole;
    std::string breaks;
    std::size_t more = 0;  // Whole tags that were put in.
  } kDamages[] = {
      {"none", damaged(), 634, ""},
      {"junk between tags", damaged().insert(at, noise(1000)).insert(tags[9].position, noise(7)), 634,
       "junk 8169+7; junk " + std::to_string(at + 7) + "+1000"},
      {"junk inside a tag", damaged().insert(half, noise(1000)), 633,
       "damagedTag " + std::to_string(at) + "+2015"},
      {"64 KiB of zeros", damaged().overwrite(half, zeros(65536)), 568,
       "damagedTag " + std::to_string(at) + "+66990"},
      {"zeros between tags", damaged().insert(at, zeros(65536)), 634,
       "zeros " + std::to_string(at) + "+65536"},
      {"as many zeros as a tag's overhead", damaged().insert(at, zeros(15)), 634,
       "zeros " + std::to_string(at) + "+15"},
      {"bytes missing", damaged().remove(half, 5000), 628, "damagedTag " + std::to_string(at) + "+1090"},
      {"a header missing", damaged().remove(at, 11), 633, "junk " + std::to_string(at) + "+1004"},
      {"two holes", damaged().remove(half, 5000).remove(tags[100].position - 3, 500), 626, "damagedTag"},
      {"unknown types put in", damaged().insert(at, strange).insert(tags[50].position, strange), 634, "", 2},
      {"a lying size", damaged().overwrite(at + 1, {0xFF}), 633,
       "damagedTag " + std::to_string(at) + "+1015"},
      {"short trailing sizes", damaged().fields([](u32 n) { return n; }), 634, ""},
      {"zero trailing sizes", damaged().fields([](u32) { return 0u; }), 634, ""},
      {"any trailing sizes", damaged().fields([](u32 n) { return n * 77777 + 5; }), 634, ""},
      {"zero trailing sizes and junk", damaged().fields([](u32) { return 0u; }).insert(at, noise(1000)), 634,
       "junk"},
      {"20 MiB of junk behind", damaged().insert(size, noise(20 << 20)), 634,
       "junk " + std::to_string(size) + "+20971520 tail"},
      {"20 MiB of zeros behind", damaged().insert(size, zeros(20 << 20)), 634,
       "zeros " + std::to_string(size) + "+20971520 tail"},
      {"a torn tail", damaged().remove(size - 30, 30), 633,
       "tornTail " + std::to_string(size - 1015) + "+985 tail"},
      {"a last size field cut short", damaged().remove(size - 2, 2), 633, "", 1},
      {"no file header", damaged().remove(0, 13), 634, ""},
      {"half a file header", damaged().remove(0, 6), 634, "junk 0+7"},
  };
  for (const auto& d : kDamages) {
    SCOPED_TRACE(d.name);
    const Walked walked = walk(d.damage.bytes());
    const TagList whole = d.damage.whole();
    EXPECT_EQ(walked.tags.size(), d.whole + d.more);
    EXPECT_THAT(walked.breaks, testing::StartsWith(d.breaks));
    EXPECT_EQ(walked.breaks.empty(), d.breaks.empty());
    EXPECT_TRUE(d.more || walked.tags == whole);
    EXPECT_EQ(whole.size(), d.whole);
  }
}

// Steps as text: the places and kinds alone.
std::string steps(MemorySource source, Payloads payloads, std::size_t* read) {
  std::string text;
  for (Walker walker(source, payloads); const auto step = walker.next();) {
    const auto* const tag = std::get_if<WalkedTag>(&*step);
    text += tag ? 't' + std::to_string(tag->tag.size) : 'b' + std::to_string(std::get<Break>(*step).to);
    if (tag) text += '/' + std::to_string(tag->tag.front().back());
    text += '@' + std::to_string(tag ? tag->position : std::get<Break>(*step).from) + ' ';
  }
  *read = source.bytesRead();
  return text;
}

TEST(Walker, findsTheSameWithoutReadingLargePayloads) {
  FlvBuilder sound = FlvBuilder().tag(18, 0, onMetaData());
  for (u32 i = 0; i < 40; ++i) sound.tag(i % 3 ? 8 : 9, i * 40, noise(i % 3 ? 300 : 400'000, i));
  const i64 large = sound.tags()[13].position;
  const Damage damages[] = {
      Damage(sound),
      Damage(sound).insert(large, noise(5000)),
      Damage(sound).insert(large + 5000, noise(5000)),
      Damage(sound).overwrite(large + 399'000, Bytes(3000)),
      Damage(sound).overwrite(sound.tags()[13].end() - 4, {0, 0, 0, 99}),
      Damage(sound).remove(sound.size() - 100'000, 100'000),
  };
  for (const Damage& damage : damages) {
    std::size_t whole = 0, fronts = 0;
    const Bytes bytes = damage.bytes();
    EXPECT_EQ(steps(MemorySource(bytes, true), Payloads::fronts, &fronts),
              steps(MemorySource(bytes), Payloads::whole, &whole));
    EXPECT_LT(fronts, &damage == damages ? whole / 4 : 2 * whole);
  }
}

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
    const Walked walked = walk(bytes);
    for (const std::size_t piece : {std::size_t{333}, std::size_t{65536}, bytes.size()}) {
      TagList tags;
      u64 leftOut = 0;
      FlvReader reader(into(tags), [&](u64, u64 size) { leftOut += size; });
      for (std::size_t i = 0; i < bytes.size(); i += piece) {
        ASSERT_TRUE(reader.feed(&bytes[i], std::min(piece, bytes.size() - i)));
      }
      reader.finish();
      EXPECT_TRUE(tags == walked.tags) << &damage - damages << ' ' << piece << ' ' << tags.size();
      EXPECT_TRUE(leftOut == walked.lost || !reader.explainEnd().empty()) << &damage - damages;
    }
  }
}

// A tag's size has 24 bits.
TEST(FlvWriter, anAggregateNeverOutgrowsATag) {
  const u32 half = flv::kMaxTagDataSize / 2 - flv::kTagOverhead;
  const Bytes data(flv::kMaxTagDataSize, 0x12);
  TempDir dir;
  OutputFile out(dir.path("out.flv"), Existing::refuse, FileIdentity{});
  FlvWriter writer(out);
  writer.header(1);
  for (const u32 size : {half, half, half, flv::kMaxTagDataSize}) writer.join({9, 1, 0, data.data(), size});
  writer.finish();

  std::vector<std::pair<u16, std::size_t>> kindsAndSizes;
  for (const auto& tag : tagsOf(str(TempDir::read(dir.path("out.flv"))))) {
    kindsAndSizes.emplace_back(tag.type, tag.data.size());
  }
  const u32 entry = half + flv::kTagOverhead;
  EXPECT_EQ(kindsAndSizes, (std::vector<std::pair<u16, std::size_t>>{
                               {22, 2 * entry}, {22, entry}, {9, flv::kMaxTagDataSize}}));
}

TEST(Tags, aTornAggregateGivesItsWholeEntries) {
  const Bytes entry = tagBytes(9, 7, Bytes{0x12, 1, 2});
  const Bytes two = join(entry, entry);
  for (u32 size = 0; size <= two.size(); ++size) {
    const Bytes cut(two.begin(), two.begin() + size);  // Its own block: a read behind it shows.
    u32 met = 0;
    const bool whole = forEachTag(Message{22, 7, cut.data(), size}, [&](const Tag&) { ++met; });
    EXPECT_EQ(met, size / entry.size());
    EXPECT_EQ(whole, size % entry.size() == 0);
  }
}

}  // namespace
}  // namespace orv::host::test
