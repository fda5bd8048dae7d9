// The read cache: placements, wrapping, pass-through and the texts of short reads.

#include "util/autofilebuffer.h"

#include <gtest/gtest.h>

#include "support/MemoryHost.h"
#include "support/Random.h"

namespace orv::test {
namespace {

using orv::util::FileReadException;

class AutoFileBufferTest : public testing::Test {
 protected:
  void useFile(u32 size) {
    Bytes bytes(size);
    for (u32 i = 0; i < size; ++i) bytes[i] = static_cast<u8>(i * 7 + i / 256);
    host.put("f", bytes);
    fd = host.open("f", openflags::readOnly, 0, 0);
    host.clearCalls();
  }
  // The bytes that came.
  Bytes read(autofilebuffer& buffer, i64 position, u32 size, u32 placement) {
    Bytes out(size, 0xEE);
    out.resize(buffer.readAt(fd, position, out.data(), size, true, 7, "unit", true, placement));
    return out;
  }
  Bytes fileBytes(i64 position, u32 size) { return host.file("f").image.bytes(position, size); }
  // Positions of the host's reads since the last call.
  std::vector<std::pair<i64, u32>> reads() {
    std::vector<std::pair<i64, u32>> out;
    for (const Call& call : host.calls) out.emplace_back(call.position, call.size);
    host.clearCalls();
    return out;
  }
  using Reads = std::vector<std::pair<i64, u32>>;

  MemoryHost host;
  int fd = -1;
};

TEST_F(AutoFileBufferTest, placementOfTheBlock) {
  useFile(10'000);
  const struct {
    u32 placement;
    i64 position, blockStart;
  } kBlocks[] = {{0, 5000, 5000}, {0, 0, 0},       {1, 5000, 4499}, {1, 501, 0}, {1, 502, 1},
                 {1, 20, 0},      {2, 5000, 3997}, {2, 1003, 0},    {2, 1004, 1}};
  for (const auto& block : kBlocks) {
    autofilebuffer buffer(1003, &host);
    EXPECT_TRUE(buffer.prime(fd, block.position, block.placement));
    EXPECT_EQ(reads(), (Reads{{block.blockStart, 1003}})) << block.placement << ' ' << block.position;
    EXPECT_EQ(read(buffer, block.blockStart, 1003, 0), fileBytes(block.blockStart, 1003));
    EXPECT_TRUE(reads().empty());  // all of it is there
    EXPECT_EQ(read(buffer, block.blockStart + 1003, 1, 0), fileBytes(block.blockStart + 1003, 1));
    EXPECT_EQ(reads(), (Reads{{block.blockStart + 1003, 1003}}));  // and nothing more
  }
}

TEST_F(AutoFileBufferTest, readsAtTheEndOfTheFile) {
  useFile(5000);
  autofilebuffer buffer(1000, &host);
  EXPECT_EQ(read(buffer, 4500, 1, 0), fileBytes(4500, 1));
  EXPECT_EQ(read(buffer, 4995, 11, 0), fileBytes(4995, 5));
  EXPECT_EQ(read(buffer, 4500, 500, 0), fileBytes(4500, 500));
  EXPECT_EQ(reads(), (Reads{{4500, 1000}, {5000, 1000}}));  // the block stays where nothing comes
  EXPECT_EQ(read(buffer, 5000, 11, 0), Bytes());
  EXPECT_EQ(read(buffer, 9'999'999, 11, 0), Bytes());
  const Bytes wrapped = read(buffer, 4995, 11, 1);
  ASSERT_EQ(wrapped.size(), 11u);  // full, with earlier bytes behind those that exist
  EXPECT_TRUE(std::equal(wrapped.begin(), wrapped.begin() + 5, fileBytes(4995, 5).begin()));
  host.put("f", Bytes());
  for (const u32 placement : {0u, 1u, 2u}) {
    buffer.release();
    EXPECT_EQ(read(buffer, 0, 4, placement).size() + read(buffer, 9, 4, placement).size(), 0u) << placement;
  }
}

TEST_F(AutoFileBufferTest, textsOfShortReads) {
  useFile(5000);
  autofilebuffer buffer(1000, &host);
  const struct {
    i64 position;
    bool allowShort, noThrow, throws;
    const char* text;  // In front of the error code.
  } kReads[] = {
      {4995, true, false, false, ""},
      {4995, false, true, false,
       "FLV file read underrun, wanted 11 bytes, got 5 file descriptor 3 in file unit line 7 error-code "},
      {4995, false, false, true,
       "FLV file read underrun, wanted 11 bytes, got 5 file descriptor 3 in file unit line 7 error-code "},
      {5000, false, false, true,
       "FLV file read failed, wanted 11 bytes, got 0 file descriptor 3 in file unit line 7 error-code "},
      {-1, false, true, false, ""},
      {-1, true, false, true, ""},
  };
  for (const auto& wanted : kReads) {
    u8 out[11];
    bool thrown = false;
    host.clearCalls();
    testing::internal::CaptureStdout();
    try {
      buffer.readAt(fd, wanted.position, out, 11, wanted.allowShort, 7, "unit", wanted.noThrow, 0);
    } catch (const FileReadException&) {
      thrown = true;
    }
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(thrown, wanted.throws) << wanted.position;
    EXPECT_EQ(text.substr(0, text.find_last_not_of("0123456789") + 1), wanted.text);
    EXPECT_EQ(host.calls.empty(), wanted.position < 0);
  }
}

TEST_F(AutoFileBufferTest, whatKeepsAndWhatDropsTheBlock) {
  useFile(5000);
  autofilebuffer buffer(1000, &host);
  read(buffer, 100, 1, 0);
  reads();
  {
    const PassThroughScope scope(buffer);
    EXPECT_EQ(read(buffer, 3000, 20, 1), fileBytes(3000, 20));
    EXPECT_EQ(read(buffer, 1090, 20, 0), fileBytes(1090, 20));  // half from the block, half behind it
    EXPECT_EQ(read(buffer, 4990, 20, 1), fileBytes(4990, 10));  // and here the end is the end
    EXPECT_EQ(reads(), (Reads{{3000, 20}, {1100, 10}, {4990, 20}, {5000, 10}}));
  }
  EXPECT_EQ(read(buffer, 100, 1000, 0), fileBytes(100, 1000));
  EXPECT_TRUE(reads().empty());
  for (const bool release : {false, true}) {
    release ? buffer.release() : buffer.reset(fd, 0);
    EXPECT_EQ(read(buffer, 0, 9, 0), fileBytes(0, 9));
    EXPECT_EQ(reads(), (Reads{{0, 1000}}));
  }
  fd = -1;
  EXPECT_TRUE(read(buffer, 3000, 9, 0).empty() && reads().empty());
}

// A read that the file can serve gives the file's bytes, whatever the sizes, the order and the chain.
TEST_F(AutoFileBufferTest, neverAnythingButTheFile) {
  useFile(7000);
  Random random(1);
  for (const u32 capacity : {4u, 64u, 1000u, 9000u}) {
    autofilebuffer big(capacity, &host), chained(1 + capacity / 3, &host, &big);
    for (int i = 0; i < 500; ++i) {
      const u32 size = 1 + random() % (i % 2 ? 15 : 3000);
      const i64 position = random() % (7001 - size);
      autofilebuffer& buffer = random.below(2) ? big : chained;
      const u32 placement = random.below(3);
      std::optional<PassThroughScope> scope;
      if (random.below(3) == 0) scope.emplace(big);
      ASSERT_EQ(read(buffer, position, size, placement), fileBytes(position, size))
          << capacity << ' ' << position << ' ' << size << ' ' << placement;
    }
  }
}

}  // namespace
}  // namespace orv::test
