// The read cache: placements, wrapping, pass-through and the texts of short reads.

#include "util/autofilebuffer.h"

#include <gmock/gmock.h>

#include <cstring>

#include "QuietReads.h"
#include "support/MemoryHost.h"
#include "support/Random.h"

namespace orv::test {
namespace {

constexpr u32 kFileSize = 7000;

class AutoFileBufferTest : public testing::Test {
 protected:
  using Reads = std::vector<std::pair<i64, u32>>;

  AutoFileBufferTest() {
    Bytes bytes(kFileSize);
    for (u32 i = 0; i < kFileSize; ++i) bytes[i] = static_cast<u8>(i * 7 + i / 256);
    host.put("f", bytes);
    fd = host.open("f", openflags::readOnly, 0, 0);
    host.clearCalls();
  }
  // Reads, and tells how many bytes came: the file's, as far as it has them.
  u32 read(autofilebuffer& buffer, i64 position, u32 size, u32 where) {
    const auto placement = static_cast<autofilebuffer::Placement>(where);
    Bytes out(size), real = host.file("f").image.bytes(position, size);
    out.resize(buffer.readSome(fd, position, out.data(), size, placement));
    const std::size_t common = std::min(out.size(), real.size());
    EXPECT_EQ(std::memcmp(out.data(), real.data(), common), 0) << position << ' ' << size << ' ' << placement;
    return static_cast<u32>(out.size());
  }
  // So many bytes come, and the host is asked for these.
  void expectRead(autofilebuffer& buffer, i64 position, u32 size, u32 placement, u32 got,
                  const Reads& asked) {
    host.clearCalls();
    EXPECT_EQ(read(buffer, position, size, placement), got) << position << ' ' << size << ' ' << placement;
    Reads seen;
    for (const Call& call : host.calls) seen.emplace_back(call.position, call.size);
    EXPECT_EQ(seen, asked) << position << ' ' << size << ' ' << placement;
  }

  QuietReads reads_;
  MemoryHost host;
  int fd = -1;
};

TEST_F(AutoFileBufferTest, placementOfTheBlock) {
  const struct {
    u32 placement;
    i64 position, blockStart;
  } kBlocks[] = {{0, 5000, 5000}, {1, 5000, 4499}, {1, 20, 0}, {2, 5000, 3997}, {2, 20, 0}};
  for (const auto& [placement, position, blockStart] : kBlocks) {
    autofilebuffer buffer(1003, &host);
    EXPECT_TRUE(buffer.prime(fd, position, static_cast<autofilebuffer::Placement>(placement)));
    expectRead(buffer, blockStart, 1003, 0, 1003, {});
    expectRead(buffer, blockStart + 1003, 1, 0, 1, {{blockStart + 1003, 1003}});
  }
}

TEST_F(AutoFileBufferTest, whatKeepsAndWhatMovesTheBlock) {
  autofilebuffer buffer(1000, &host);
  expectRead(buffer, 6500, 1, 0, 1, {{6500, 1000}});
  expectRead(buffer, 6995, 11, 0, 5, {{7000, 1000}});
  expectRead(buffer, 6500, 500, 0, 500, {});  // It stays where nothing comes.
  expectRead(buffer, 7000, 11, 0, 0, {{7000, 1000}});
  // Full, with earlier bytes behind those that exist.
  expectRead(buffer, 6995, 11, 1, 11, {{6495, 1000}, {7000, 1000}, {6000, 1000}});
  expectRead(buffer, 100, 1, 0, 1, {{100, 1000}});
  {
    const PassThroughScope scope(buffer);
    { const PassThroughScope nested(buffer); }
    EXPECT_TRUE(buffer.prime(fd, 3000, autofilebuffer::forward));  // Loads nothing.
    expectRead(buffer, 3000, 20, 1, 20, {{3000, 20}});
    expectRead(buffer, 1090, 20, 0, 20, {{1100, 10}});              // Half from the block, half behind it.
    expectRead(buffer, 6990, 20, 1, 10, {{6990, 20}, {7000, 10}});  // And here the end is the end.
  }
  expectRead(buffer, 100, 1000, 0, 1000, {});
  buffer.reset(fd, 0);
  expectRead(buffer, 0, 9, 0, 9, {{0, 1000}});
  host.put("f", Bytes(3, 'x'));
  buffer.release();
  expectRead(buffer, 2, 65536, 1, 65536, {{0, 1000}, {3, 1000}, {0, 1000}});  // No thousand calls.
  host.put("f", Bytes());
  buffer.release();
  for (const u32 placement : {0u, 1u, 2u}) expectRead(buffer, 0, 4, placement, 0, {{0, 1000}});
  fd = -1;
  expectRead(buffer, 0, 9, 0, 0, {});
}

TEST_F(AutoFileBufferTest, textsOfShortReads) {
  const std::string end = " file descriptor 3 in file unit line 7 error-code [0-9]+";
  const struct {
    i64 position;
    bool throws;
    std::string told;
  } kReads[] = {
      {6995, false, "FLV file read underrun, wanted 11 bytes, got 5" + end},
      {6995, true, "FLV file read underrun, wanted 11 bytes, got 5" + end},
      {7000, true, "FLV file read failed, wanted 11 bytes, got 0" + end},
      {-1, false, ""},
      {-1, true, ""},
  };
  for (const auto& [position, throws, told] : kReads) {
    autofilebuffer buffer(1000, &host);
    u8 out[11];
    reads_.printed();
    host.clearCalls();
    if (throws)
      EXPECT_THROW(buffer.readExactly(fd, position, out, sizeof out, 7, "unit"), util::FileReadException);
    else
      buffer.readOrReport(fd, position, out, sizeof out, 7, "unit", autofilebuffer::forward);
    EXPECT_THAT(reads_.printed(), testing::MatchesRegex(told));
    EXPECT_EQ(host.calls.empty(), position < 0);
  }
}

// A read that the file can serve gives the file's bytes, whatever the sizes, the order and the chain.
TEST_F(AutoFileBufferTest, neverAnythingButTheFile) {
  Random random(1);
  for (const u32 capacity : {4u, 64u, 1000u, 9000u}) {
    autofilebuffer big(capacity, &host), chained(1 + capacity / 3, &host, &big);
    for (int i = 0; i < 500; ++i) {
      const u32 size = 1 + random() % (i % 2 ? 15 : 3000);
      const i64 position = random() % (kFileSize + 1 - size);
      autofilebuffer& buffer = random.oneIn(2) ? big : chained;
      const u32 placement = random.below(3);
      std::optional<PassThroughScope> scope;
      if (random.oneIn(3)) scope.emplace(big);
      ASSERT_EQ(read(buffer, position, size, placement), size) << capacity;
    }
  }
}

}  // namespace
}  // namespace orv::test
