// The host in memory behaves as a real directory does: one suite on both.

#include <gtest/gtest.h>

#include <filesystem>

#include "support/DiskHost.h"
#include "support/MemoryHost.h"

namespace orv::test {
namespace {

void keepsTheContract(IFileService& files, const std::string& folder) {
  const std::string text = folder + "\\a.flv";
  const char* const path = text.c_str();
  FileStat record{};
  char out[8] = {};
  EXPECT_EQ(files.open(path, openflags::readOnly, 0, 0), -1);
  EXPECT_EQ(files.open(path, openflags::readWrite, 0, 0), -1);
  EXPECT_NE(files.stat(path, &record, 0), 0);
  EXPECT_NE(files.unlink(path, 0), 0);
  files.mkdir(folder.c_str());

  const int fd = files.open(path, openflags::createTruncate, openflags::ownerReadWrite, 0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(files.write(fd, 2, "cdef", 4), 4);
  EXPECT_EQ(files.fstat(fd, &record, 0), 0);
  EXPECT_EQ(record.size, 6);
  const i64 before = record.modificationTime;
  EXPECT_EQ(files.write(fd, 0, "ab", 2), 2);
  EXPECT_EQ(files.stat(path, &record, 0), 0);
  EXPECT_EQ(record.size, 6);
  EXPECT_NE(static_cast<u32>(record.modificationTime), static_cast<u32>(before));

  const int reader = files.open(path, openflags::readOnly, 0, 0);
  EXPECT_EQ(files.read(reader, 4, out, 8), 2);
  EXPECT_EQ(files.read(reader, 0, out, 4), 4);
  EXPECT_EQ(std::string(out, 4), "abcd");
  EXPECT_LT(files.read(reader, 6, out, 8), 1);
  EXPECT_LT(files.write(reader, 0, "x", 1), 1);
  EXPECT_EQ(files.unlink(path, 0), 0);
  EXPECT_EQ(files.read(reader, 0, out, 1), 1);  // an open file outlives its name
  EXPECT_NE(files.stat(path, &record, 0), 0);
  EXPECT_EQ(files.close(reader, 0) + files.close(fd, 0), 0);
  EXPECT_LT(files.read(fd, 0, out, 1), 1);
}

TEST(HostsTest, memoryAndDiskAgree) {
  MemoryHost memory;
  keepsTheContract(memory, "c:\\new");
  EXPECT_EQ(memory.openDescriptors(), 0u);
  EXPECT_EQ(memory.misuses(), 2u);  // the write to a reader's descriptor and the read of a closed one
  DiskHost disk;
  const auto folder = std::filesystem::path(testing::TempDir()) / ("flv_hosts_" + std::to_string(::getpid()));
  keepsTheContract(disk, folder);
  EXPECT_EQ(disk.openDescriptors, 0);
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace orv::test
