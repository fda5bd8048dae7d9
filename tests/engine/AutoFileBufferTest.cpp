// The read cache: placements, wrapping, pass-through and the texts of short reads.

#include "util/autofilebuffer.h"

#include <gtest/gtest.h>

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
  // Tells how many bytes came. As far as the file has them, they must be the file's.
  u32 read(autofilebuffer& buffer, i64 position, u32 size, u32 where) {
    const auto placement = static_cast<autofilebuffer::Placement>(where);
    Bytes out(size), real = host.file("f").image.bytes(position, size);
    out.resize(buffer.readSome(fd, position, out.data(), size, placement));
    const std::size_t common = std::min(out.size(), real.size());
    EXPECT_EQ(std::memcmp(out.data(), real.data(), common), 0) << position << ' ' << size << ' ' << placement;
    return static_cast<u32>(out.size());
  }
  // What the host was asked for since the last call.
  Reads reads() {
    Reads out;
    for (const Call& call : host.calls) out.emplace_back(call.position, call.size);
    host.clearCalls();
    return out;
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
    read(buffer, blockStart, 1003, 0);  // all of it is there, and nothing more
    read(buffer, blockStart + 1003, 1, 0);
    EXPECT_EQ(reads(), (Reads{{blockStart, 1003}, {blockStart + 1003, 1003}})) << placement;
  }
}

TEST_F(AutoFileBufferTest, readsAtTheEndOfTheFile) {
  autofilebuffer buffer(1000, &host);
  read(buffer, 6500, 1, 0);
  EXPECT_EQ(read(buffer, 6995, 11, 0), 5u);
  EXPECT_EQ(read(buffer, 6500, 500, 0), 500u);
  EXPECT_EQ(reads(), (Reads{{6500, 1000}, {7000, 1000}}));  // the block stays where nothing comes
  EXPECT_EQ(read(buffer, 7000, 11, 0), 0u);
  EXPECT_EQ(read(buffer, 6995, 11, 1), 11u);  // full, with earlier bytes behind those that exist
  host.put("f", Bytes());
  buffer.release();
  for (const u32 placement : {0u, 1u, 2u}) EXPECT_EQ(read(buffer, 0, 4, placement), 0u) << placement;
}

TEST_F(AutoFileBufferTest, aLongReadInATinyFileTakesFewCalls) {
  host.put("f", Bytes(3, 'x'));
  autofilebuffer buffer(1024, &host);
  EXPECT_EQ(read(buffer, 2, 65536, 1), 65536u);
  EXPECT_LE(reads().size(), 4u);
}

TEST_F(AutoFileBufferTest, whatKeepsAndWhatDropsTheBlock) {
  autofilebuffer buffer(1000, &host);
  read(buffer, 100, 1, 0);
  reads();
  {
    const PassThroughScope scope(buffer);
    { const PassThroughScope nested(buffer); }
    EXPECT_TRUE(buffer.prime(fd, 3000, autofilebuffer::forward));  // loads nothing
    EXPECT_EQ(read(buffer, 3000, 20, 1), 20u);
    EXPECT_EQ(read(buffer, 1090, 20, 0), 20u);  // half from the block, half behind it
    EXPECT_EQ(read(buffer, 6990, 20, 1), 10u);  // and here the end is the end
    EXPECT_EQ(reads(), (Reads{{3000, 20}, {1100, 10}, {6990, 20}, {7000, 10}}));
  }
  EXPECT_EQ(read(buffer, 100, 1000, 0), 1000u);
  EXPECT_TRUE(reads().empty());
  for (const bool release : {false, true}) {
    release ? buffer.release() : buffer.reset(fd, 0);
    EXPECT_EQ(read(buffer, 0, 9, 0), 9u);
    EXPECT_EQ(reads(), (Reads{{0, 1000}}));
  }
  fd = -1;
  EXPECT_TRUE(read(buffer, 0, 9, 0) == 0 && reads().empty());
}

TEST_F(AutoFileBufferTest, textsOfShortReads) {
  const struct {
    i64 position;
    bool exactly;
    std::string text;  // From its middle.
  } kReads[] = {
      {6995, false, "underrun, wanted 11 bytes, got 5"},
      {6995, true, "underrun, wanted 11 bytes, got 5"},
      {7000, true, "failed, wanted 11 bytes, got 0"},
      {-1, false, ""},
      {-1, true, ""},
  };
  for (const auto& [position, throws, text] : kReads) {
    autofilebuffer buffer(1000, &host);
    u8 out[11];
    bool thrown = false;
    reads_.printed();
    try {
      if (throws)
        buffer.readExactly(fd, position, out, sizeof out, 7, "unit");
      else
        buffer.readOrReport(fd, position, out, sizeof out, 7, "unit", autofilebuffer::forward);
    } catch (const util::FileReadException&) {
      thrown = true;
    }
    const std::string told = reads_.printed();
    std::string expected = text.empty() ? "" : "FLV file read ";
    if (!text.empty()) expected.append(text).append(" file descriptor 3 in file unit line 7 error-code ");
    EXPECT_EQ(told.substr(0, told.find_last_not_of("0123456789") + 1), expected);
    EXPECT_EQ(thrown, throws) << position;
    EXPECT_EQ(reads().empty(), position < 0);
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
