#include "host/files/MirrorFile.h"

#include <gmock/gmock.h>

#include <csignal>

#include "TempDir.h"
#include "modules/streams/contract/IFileService.h"

namespace orv::host {
namespace {

using namespace test;
using namespace openflags;

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
  EXPECT_THAT(faults[0], testing::StartsWith(dir.path("copy") + ": can't be written: File too large"));
}

TEST_F(MirrorFileTest, neverEmptiesTheRecordingItself) {
  dir.file("source", {1, 2, 3});
  std::filesystem::create_symlink(dir.path("source"), dir.path("copy"));
  EXPECT_EQ(mirror->open(name, createTruncate, ownerReadWrite), -1);
  EXPECT_TRUE(mirror->isBehind());
  EXPECT_EQ(TempDir::read(dir.path("source")), (Bytes{1, 2, 3}));
}

}  // namespace
}  // namespace orv::host
