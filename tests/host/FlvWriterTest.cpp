#include "host/flv/FlvWriter.h"

#include <gtest/gtest.h>

#include "Movie.h"

namespace orv::host {
namespace {

using namespace test;

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
}  // namespace orv::host
