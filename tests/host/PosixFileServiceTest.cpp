#include "host/files/PosixFileService.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "TempDir.h"
#include "host/files/ModulePath.h"

namespace orv::host {
namespace {

using namespace test;
using namespace openflags;

class PosixFileServiceTest : public testing::Test {
 protected:
  std::string module(const std::string& name) const { return moduleFileName(toModulePath(dir.path(name))); }
  int open(const std::string& name, int flags) {
    return service.open(module(name).c_str(), flags, ownerReadWrite, 0);
  }
  i64 stamp(const std::string& name) {
    FileStat record{};
    EXPECT_EQ(service.stat(module(name).c_str(), &record, 0), 0);
    return record.modificationTime;
  }

  TempDir dir;
  std::vector<WriteFault> faults;
  static inline i64 ahead;  // Of the system's clock.
  PosixFileService service{[this](const WriteFault& fault) { faults.push_back(fault); },
                           [] { return systemTime() + ahead; }};
};

TEST_F(PosixFileServiceTest, eachFlagWordOpensAsTheContractSays) {
  dir.file("there.flv", {1, 2, 3});
  dir.file("empty.flv", {});
  ASSERT_EQ(::mkfifo(dir.path("pipe.flv").c_str(), 0600), 0);
  const struct {
    const char* file;
    int flags;
    int error;   // 0: opens.
    int access;  // Then, as fcntl tells it.
  } kCases[] = {
      {"there.flv", readOnly, 0, O_RDONLY},
      {"there.flv", readWrite, 0, O_RDWR},
      {"there.flv", createTruncate, EEXIST, 0},
      {"empty.flv", createTruncate, 0, O_RDWR},
      {"new.bin", createTruncate, 0, O_RDWR},
      {"missing.flv", readOnly, ENOENT, 0},
      {"missing.flv", readWrite, ENOENT, 0},
      {"there.flv", O_RDWR, EINVAL, 0},
      {"there.flv", 0x8001, EINVAL, 0},
      {"there.flv", 0x8102, EINVAL, 0},
      {".", readOnly, EISDIR, 0},
      {"pipe.flv", readOnly, ESPIPE, 0},  // At once.
  };
  for (const auto& c : kCases) {
    const int fd = open(c.file, c.flags);
    if (c.error) {
      EXPECT_EQ(errno, c.error) << c.file << c.flags;
      EXPECT_EQ(fd, -1) << c.file << c.flags;
      continue;
    }
    ASSERT_GT(fd, STDERR_FILENO) << c.file << c.flags;
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, c.access);
    EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(service.close(fd, 0), 0);
  }
  EXPECT_EQ(TempDir::read(dir.path("there.flv")), (Bytes{1, 2, 3}));
  EXPECT_TRUE(std::filesystem::exists(dir.path("new.bin")));
}

TEST_F(PosixFileServiceTest, readsAndWritesAtPositionsAndCountsThem) {
  const int fd = open("a.flv", createTruncate);
  EXPECT_EQ(service.write(fd, 3, "defg", 4), 4);
  EXPECT_EQ(service.write(fd, 0, "abc", 3), 3);
  char text[16] = {};
  EXPECT_EQ(service.read(fd, 2, text, sizeof text), 5);
  EXPECT_STREQ(text, "cdefg");
  EXPECT_EQ(service.read(fd, 7, text, 4), 0);
  EXPECT_LT(service.read(fd, -1, text, 4), 1);
  EXPECT_LT(service.read(-1, 0, text, 4), 1);
  FileStat record{};
  ASSERT_EQ(service.fstat(fd, &record, 0), 0);
  EXPECT_EQ(record.size, 7);
  EXPECT_EQ(service.close(fd, 0), 0);
  EXPECT_NE(service.fstat(fd, &record, 0), 0);

  const FileCalls calls = service.calls();
  EXPECT_EQ(calls.read, 4u);
  EXPECT_EQ(calls.bytesRead, 5u);
  EXPECT_EQ(calls.bytesWritten, 7u);
  EXPECT_EQ(calls.total(), 10u);
}

TEST_F(PosixFileServiceTest, statAndFstatAgreeAndAWriteInPlaceShows) {
  const int fd = open("a.flv", createTruncate);
  service.write(fd, 0, "abc", 3);
  for (int i = 0; i < 100; ++i) {
    const i64 before = stamp("a.flv");
    ASSERT_EQ(service.write(fd, 0, "xyz", 3), 3);
    ASSERT_NE(static_cast<u32>(stamp("a.flv")), static_cast<u32>(before)) << i;
  }
  ahead = 1'000'000'000;  // At rest.
  FileStat record{};
  service.fstat(fd, &record, 0);
  EXPECT_EQ(record.modificationTime, stamp("a.flv"));
  service.close(fd, 0);
  EXPECT_EQ(record.modificationTime, stamp("a.flv"));
  EXPECT_EQ(service.unlink(module("a.flv").c_str(), 0), 0);
  EXPECT_NE(service.unlink(module("a.flv").c_str(), 0), 0);
}

TEST_F(PosixFileServiceTest, theFirstWriteThatFallsShortIsToldOnce) {
  std::signal(SIGXFSZ, SIG_IGN);
  const int fd = open("a.flv", createTruncate);
  const Bytes data(600);
  {
    const FileSizeLimit limit(1000);
    EXPECT_EQ(service.write(fd, 0, data.data(), 600), 600);
    EXPECT_EQ(service.write(fd, 600, data.data(), 600), 400);
    EXPECT_EQ(service.write(fd, 1000, data.data(), 600), -1);
  }
  service.close(fd, 0);
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].path, dir.path("a.flv"));
  EXPECT_EQ(faults[0].position, 600);
  EXPECT_EQ(faults[0].wanted, 600u);
  EXPECT_EQ(faults[0].written, 400u);
  EXPECT_EQ(faults[0].error, EFBIG);
}

TEST_F(PosixFileServiceTest, mkdirMakesParents) {
  service.mkdir(toModulePath(dir.path("a b/c%d/e.flv")).c_str());
  EXPECT_TRUE(std::filesystem::is_directory(dir.path("a b/c%d/e")));
}

}  // namespace
}  // namespace orv::host
