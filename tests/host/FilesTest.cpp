// Files as the host names, opens, stamps and mirrors them.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>

#include "TempDir.h"
#include "host/files/ChangeStamps.h"
#include "host/files/MirrorFile.h"
#include "host/files/ModulePath.h"
#include "host/files/PosixFileService.h"
#include "host/text/Failure.h"
#include "modules/streams/contract/IFileService.h"

namespace orv::host::test {
namespace {

using namespace openflags;

TEST(ModulePath, anyNameCanBeGivenToTheModuleAndComesBack) {
  const struct {
    const char* native;
    const char* module;
  } kNames[] = {
      {"/films/clip.flv", "\\films\\clip"},
      {"/films/clip.bin", "\\films\\clip.bin%"},
      {"/films/clip.FLV", "\\films\\clip.FLV%"},
      {"/films/clip.flv.flv", "\\films\\clip.flv"},
      {"/films/.flv", "\\films\\"},
      {"/100%/a%41.flv", "\\100%25\\a%2541"},
      {"/x/clip%.flv", "\\x\\clip%25"},
      {"/x/f\xC3\xBC\xF0\x9F\x8E\xAC.flv", "\\x\\f%C3%BC%F0%9F%8E%AC"},
      {"/x/\xFF\n.flv", "\\x\\%FF%0A"},
  };
  for (const auto& name : kNames) {
    EXPECT_EQ(toModulePath(name.native), name.module);
    EXPECT_EQ(toNativePath(moduleFileName(name.module)), name.native);
  }
}

TEST(ModulePath, relativeNamesAndBarePercentSignsAreTakenAsTheyStand) {
  EXPECT_EQ(toModulePath("two words.flv"), toModulePath(std::filesystem::current_path() / "two words.flv"));
  EXPECT_EQ(toNativePath("\\a%\\50%x\\%4\\f\xC3\xBC.flv"), "/a%/50%x/%4/f\xC3\xBC.flv");
}

class PosixFileServiceTest : public testing::Test {
 protected:
  std::string module(const std::string& name) const { return moduleFileName(toModulePath(dir.path(name))); }
  int open(const std::string& name, int flags) {
    return service.open(module(name).c_str(), flags, ownerReadWrite, 0);
  }
  i64 stamp() {
    FileStat record{};
    EXPECT_EQ(service.stat(module("a.flv").c_str(), &record, 0), 0);
    return record.modificationTime;
  }

  TempDir dir;
  static inline i64 ahead;  // Of the system's clock.
  PosixFileService service{{}, [] { return systemTime() + ahead; }};
};

TEST_F(PosixFileServiceTest, eachFlagWordOpensAsTheContractSays) {
  dir.file("there.flv", {1, 2, 3});
  dir.file("empty.flv", {});
  ASSERT_EQ(::mkfifo(dir.path("pipe.flv").c_str(), 0600), 0);
  const struct {
    const char* file;
    int flags;
    int error;   // 0: opens.
    int access;  // Then.
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
    EXPECT_EQ(fd == -1 ? errno : 0, c.error) << c.file << c.flags;
    if (fd == -1) continue;
    EXPECT_GT(fd, STDERR_FILENO);
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, c.access) << c.file << c.flags;
    EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(service.close(fd, 0), 0);
  }
  EXPECT_EQ(TempDir::read(dir.path("there.flv")), (Bytes{1, 2, 3}));
  EXPECT_TRUE(std::filesystem::exists(dir.path("new.bin")));
}

TEST_F(PosixFileServiceTest, statAndFstatAgreeAndAWriteInPlaceShows) {
  const int fd = open("a.flv", createTruncate);
  service.write(fd, 0, "abc", 3);
  for (int i = 0; i < 100; ++i) {
    const i64 before = stamp();
    ASSERT_EQ(service.write(fd, 0, "xyz", 3), 3);
    ASSERT_NE(static_cast<u32>(stamp()), static_cast<u32>(before)) << i;
  }
  ahead = 1'000'000'000;  // At rest.
  FileStat record{};
  service.fstat(fd, &record, 0);
  EXPECT_EQ(record.modificationTime, stamp());
  service.close(fd, 0);
  EXPECT_EQ(record.modificationTime, stamp());
  EXPECT_EQ(service.unlink(module("a.flv").c_str(), 0), 0);
  EXPECT_NE(service.unlink(module("a.flv").c_str(), 0), 0);
}

class ChangeStampsTest : public testing::Test {
 protected:
  ChangeStampsTest() {
    status.st_dev = 1;
    status.st_ino = 2;
    status.st_size = 100;
    status.st_mtim = status.st_ctim = {1'000'000'000, 500};
  }
  struct stat status {};  // Of a file that was last changed long ago.
};

TEST_F(ChangeStampsTest, eachKindOfChangeGivesAnotherStampAndRestGivesTheSame) {
  ChangeStamps stamps;
  const std::pair<const char*, std::function<void()>> kChanges[] = {
      {"modification time", [&] { ++status.st_mtim.tv_nsec; }},
      {"change time", [&] { --status.st_ctim.tv_nsec; }},
      {"size within a tick", [&] { ++status.st_size; }},
      {"own write in place within a tick", [&] { stamps.noteWrite(1, 2); }},
      {"a state that comes back",
       [&] {
         struct stat other = status;
         other.st_size = 7;
         stamps.of(other);
       }},
      {"another file", [&] { ++status.st_ino; }},
      {"another device", [&] { ++status.st_dev; }},
  };
  for (const auto& [name, change] : kChanges) {
    const u32 before = stamps.of(status);
    EXPECT_NE(before, 0u) << name;
    EXPECT_EQ(stamps.of(status), before) << name;
    change();
    EXPECT_NE(stamps.of(status), before) << name;
  }
}

// What another process did in place within the tick of the last look shows once the tick is over.
TEST_F(ChangeStampsTest, aFreshChangeIsLookedAtOnceMoreWhenItHasSettled) {
  static i64 now;
  ChangeStamps stamps([] { return now; });
  now = status.st_ctim.tv_sec * 1'000'000'000 + status.st_ctim.tv_nsec;
  const u32 fresh = stamps.of(status);
  now += 10'000'000;  // The longest tick.
  EXPECT_EQ(stamps.of(status), fresh);
  now += 10'000'000;
  const u32 settled = stamps.of(status);
  EXPECT_NE(settled, fresh);
  now += 1'000'000'000;
  EXPECT_EQ(stamps.of(status), settled);
}

class MirrorFileTest : public testing::Test {
 protected:
  int write(i64 position, const Bytes& bytes) {
    mirror->seek(name, position, SEEK_SET);
    return mirror->write(name, bytes.data(), static_cast<u32>(bytes.size()));
  }
  Bytes copy() const { return TempDir::read(dir.path("copy")); }

  TempDir dir;
  const KTString name{"\\some\\file.flv"};
  std::vector<std::string> faults;
  KTPtr<MirrorFile> mirror{new MirrorFile({name.c_str(), dir.path("source"), dir.path("copy")},
                                          [this](const std::string& line) { faults.push_back(line); })};
};

TEST_F(MirrorFileTest, keepsACursorAndTakesWritesToAClosedName) {
  dir.file("copy", {9, 9, 9, 9, 9, 9, 9});
  EXPECT_EQ(mirror->open(name, createTruncate, ownerReadWrite), 0);
  EXPECT_EQ(mirror->write(name, "abc", 3), 3);
  EXPECT_EQ(mirror->close(name), 0);
  EXPECT_EQ(copy(), (Bytes{'a', 'b', 'c'}));
  mirror->seek(name, 0, SEEK_END);
  EXPECT_EQ(mirror->write(name, "de", 2), 2);
  EXPECT_EQ(write(1, {'X'}), 1);
  EXPECT_EQ(mirror->write(name, "Y", 1), 1);
  EXPECT_EQ(mirror->open(name, readWrite, 0), 0);
  EXPECT_EQ(copy(), (Bytes{'a', 'X', 'Y', 'd', 'e'}));
  EXPECT_EQ(mirror->unlink(name), 0);
  EXPECT_FALSE(std::filesystem::exists(dir.path("copy")));
  EXPECT_EQ(mirror->write(KTString("\\other"), "abc", 3), -1);
  EXPECT_TRUE(faults.empty());
}

TEST_F(MirrorFileTest, staysAsItIsAfterTheFirstFailedWrite) {
  std::signal(SIGXFSZ, SIG_IGN);
  mirror->open(name, createTruncate, ownerReadWrite);
  {
    const FileSizeLimit limit(1000);
    EXPECT_EQ(write(0, Bytes(600)), 600);
    EXPECT_EQ(write(600, Bytes(600)), -1);
    EXPECT_EQ(write(4, {1}), -1);
  }
  EXPECT_EQ(mirror->open(name, createTruncate, ownerReadWrite), -1);
  EXPECT_TRUE(mirror->isBehind());
  EXPECT_EQ(copy(), Bytes(1000));
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_THAT(faults[0], testing::StartsWith(dir.path("copy") + ": cannot be written: File too large"));
}

TEST_F(MirrorFileTest, neverEmptiesTheRecordingItself) {
  dir.file("source", {1, 2, 3});
  std::filesystem::create_symlink(dir.path("source"), dir.path("copy"));
  EXPECT_EQ(mirror->open(name, createTruncate, ownerReadWrite), -1);
  EXPECT_TRUE(mirror->isBehind());
  EXPECT_EQ(TempDir::read(dir.path("source")), (Bytes{1, 2, 3}));
}

}  // namespace
}  // namespace orv::host::test
