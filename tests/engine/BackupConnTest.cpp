// A mirror that is attached late: the copy of what the file holds by then, and what follows it.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "RecordTest.h"

namespace orv::test {
namespace {

// How the descriptor behaves from which the module takes the copy.
enum class Feed { file, pieces, breaksOff };

// A memory host whose descriptors are, for the copy, real ones.
class FeedingHost final : public TestContext, public IFileService {
 public:
  explicit FeedingHost(MemoryHost& disk) : disk_(disk) { disk.firstDescriptor = 1000; }
  ~FeedingHost() override { EXPECT_TRUE(feeds_.empty()); }
  Feed feed = Feed::file;

  IFileService* getFileService() override { return this; }
  int open(const char* path, int flags, int mode, int reserved) override {
    const int fd = disk_.open(path, flags, mode, reserved);
    if (flags != openflags::readOnly || mode != 0 || fd == -1) return fd;
    const int real =
        feed == Feed::file ? whole(disk_.file(path).image.bytes()) : pipe(disk_.file(path).image.bytes());
    feeds_[real] = fd;
    return real;
  }
  int close(int fd, int reserved) override {
    if (feeds_.contains(fd)) {
      ::close(fd);
      if (feeder_.joinable()) feeder_.join();
    }
    const int known = of(fd);
    feeds_.erase(fd);
    return disk_.close(known, reserved);
  }
  int fstat(int fd, FileStat* record, int reserved) override { return disk_.fstat(of(fd), record, reserved); }
  int read(int fd, i64 position, void* data, u32 size) override {
    return disk_.read(fd, position, data, size);
  }
  int write(int fd, i64 position, const void* data, u32 size) override {
    return disk_.write(fd, position, data, size);
  }
  int stat(const char* path, FileStat* record, int reserved) override {
    return disk_.stat(path, record, reserved);
  }
  int unlink(const char* path, int reserved) override { return disk_.unlink(path, reserved); }
  void mkdir(const char* path) override { disk_.mkdir(path); }

 private:
  int of(int fd) { return feeds_.contains(fd) ? feeds_[fd] : fd; }

  static int whole(const Bytes& bytes) {
    const int fd = memfd_create("film", MFD_CLOEXEC);
    EXPECT_EQ(::pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return fd;
  }

  // Comes in pieces, with signals that interrupt whoever waits for the next one.
  int pipe(Bytes bytes) {
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupt, nullptr);
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    if (feed == Feed::breaksOff) bytes.pop_back();
    feeder_ = std::thread([bytes, reader = pthread_self(), out = ends[1]] {
      for (std::size_t at = 0; at < bytes.size(); at += 100) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        pthread_kill(reader, SIGUSR1);
        const std::size_t size = std::min<std::size_t>(100, bytes.size() - at);
        EXPECT_EQ(::write(out, &bytes[at], size), static_cast<ssize_t>(size));
      }
      ::close(out);
    });
    return ends[0];
  }

  MemoryHost& disk_;
  std::map<int, int> feeds_;  // The real descriptors, and the memory host's own.
  std::thread feeder_;
};

class BackupConnTest : public RecordTest {
 protected:
  Stream open(Stream::Mode mode) { return Stream(*late_, kName, mode); }
  void attach(Stream& stream, IBackupConn* conn) { late_->setUserData(stream.handle, conn); }
  void TearDown() override {
    late_.reset();
    RecordTest::TearDown();
  }

  IQVStreamAdaptor& late() { return *late_; }

  FeedingHost feeding{host};

 private:
  std::unique_ptr<IQVStreamAdaptor> late_ = module().create(feeding);
};

const std::string kCopy = "open 32768 0, fstat, m:open 33538 384, m:write 1000, m:close, close";
const FlvBuilder kFilm = FlvBuilder().tag(kVideo, 1, 400).tag(kVideo, 2, 557);

TEST_F(BackupConnTest, copyOfAFile) {
  const struct {
    const char* name;
    Feed feed;
    Op fails;  // mkdir, which isn't called: none.
    std::string calls;
  } kCopies[] = {
      {"whole", Feed::file, Op::mkdir, kCopy},
      {"in pieces", Feed::pieces, Op::mkdir, kCopy},
      {"one byte short", Feed::breaksOff, Op::mkdir, "open 32768 0, fstat, close"},
      {"no descriptor", Feed::file, Op::open, "open 32768 0"},
      {"no size", Feed::file, Op::fstat, "open 32768 0, fstat, close"},
  };
  for (const auto& copy : kCopies) {
    mirror->files.clear();
    host.put(kFile, kFilm.bytes());
    ASSERT_EQ(bytes().size(), 1000u);
    {
      Stream stream = open(Stream::play);
      attach(stream, nullptr);
      script();
      feeding.feed = copy.feed;
      if (copy.fails != Op::mkdir) host.failCall(1, Fault::fails, copy.fails);
      attach(stream, mirror.get());
      EXPECT_EQ(script(), copy.calls) << copy.name;
      const KTPtr<MirrorConn> other{new MirrorConn};
      attach(stream, other.get());
      attach(stream, nullptr);
      EXPECT_EQ(script(), "") << copy.name;
      EXPECT_EQ(mirror->getRefCount(), 2) << copy.name;
      EXPECT_EQ(other->getRefCount(), 1) << copy.name;
      // What is written later arrives in any case.
      stream.stage(kAudio, 50, payload(kAudio, 30, 1));
      EXPECT_TRUE(stream.flush()) << copy.name;
    }
    EXPECT_EQ(mirror->getRefCount(), 1) << copy.name;
    Bytes expected = bytes();
    if (copy.calls != kCopy) {
      std::fill(expected.begin(), expected.begin() + 1000, 0);
      expected[flv::kTypeFlagsPosition] = 5;
    }
    EXPECT_EQ(mirror->files[kFile].bytes(), expected) << copy.name;
  }
}

TEST_F(BackupConnTest, attachedDuringARecording) {
  Stream stream = open(Stream::record);
  stream.stage(kVideo, 10, payload(kVideo, 957 + 15, 1));
  EXPECT_TRUE(stream.flush());
  for (u32 i = 0; i < 3; ++i) stream.stage(kVideo, 20 + i, payload(kVideo, 100, i));
  script();
  attach(stream, mirror.get());
  EXPECT_EQ(script(), "close, " + kCopy + ", open 32770 384");
  EXPECT_EQ(mirror->files[kFile].bytes(), bytes());
  mirror->answer = -1;  // of no consequence
  for (u32 i = 0; i < 3; ++i) {
    stream.stage(kAudio, 50 + i, payload(kAudio, 30, i));
    EXPECT_TRUE(stream.flush());
    EXPECT_EQ(mirror->files[kFile].bytes(), bytes()) << i;
  }
  EXPECT_EQ(bytes().size(), 1000u + 3 * 115 + 3 * 45);
}

TEST_F(BackupConnTest, fileThatDoesNotOpenAgain) {
  Stream stream = open(Stream::record);
  host.failCall(2, Fault::fails, Op::open);
  attach(stream, mirror.get());
  EXPECT_EQ(mirror->files[kFile].bytes(), bytes());
  script();
  EXPECT_TRUE(stream.stage(kVideo, 10, {0x12}));
  EXPECT_FALSE(stream.flush());
  EXPECT_EQ(script(), "");
}

TEST_F(BackupConnTest, withoutAFile) {
  Stream stream = open(Stream::record);
  EXPECT_TRUE(stream.flush());
  host.remove(kFile);
  script();
  attach(stream, mirror.get());
  EXPECT_EQ(script(), "open 32768 0");
  EXPECT_TRUE(stream.stage(kVideo, 10, {0x12}));
  EXPECT_TRUE(stream.flush());
  EXPECT_EQ(mirror->files[kFile].bytes(), bytes());
  late().setUserData(nullptr, mirror.get());
}

}  // namespace
}  // namespace orv::test
