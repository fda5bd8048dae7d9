// A mirror that is attached late: the copy of what the file holds by then, and what follows it.

#include <sys/socket.h>
#include <unistd.h>

#include "RecordTest.h"

namespace orv::test {
namespace {

// For the copy, which the module reads itself, the host gives out a real descriptor: a socket, from which the
// file comes in pieces.
class BackupConnTest : public RecordTest {
 protected:
  BackupConnTest() {
    host.beforeCall = [this, note = host.beforeCall](const Call& call) {
      note(call);
      host.firstDescriptor = 1000;  // Above the real ones.
      const bool forCopy = call.op == Op::open && call.flags == openflags::readOnly && call.mode == 0;
      if (forCopy && host.exists(kFile)) host.firstDescriptor = feed_ = startFeed();
      if (call.op == Op::close && call.fd == feed_) endFeed();
    };
  }
  ~BackupConnTest() override { endFeed(); }

  void attach(Stream& stream, IBackupConn* conn) { adaptor().setUserData(stream.handle, conn); }

  std::size_t missing = 0;  // Bytes at the end that don't come.

 private:
  int startFeed() {
    endFeed();
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const Bytes file = bytes();
    for (std::size_t at = 0, size = 0; at < file.size() - missing; at += size) {
      size = std::min<std::size_t>(100, file.size() - missing - at);
      EXPECT_EQ(::write(ends[1], &file[at], size), static_cast<ssize_t>(size));
    }
    ::close(ends[1]);
    return ends[0];
  }
  void endFeed() {
    if (feed_ != -1) ::close(std::exchange(feed_, -1));
  }

  int feed_ = -1;
};

const std::string kCopy = "open 32768 0, fstat, m:open 33538 384, m:write 1000, m:close, close";

TEST_F(BackupConnTest, copyOfAFile) {
  const struct {
    const char* name;
    std::size_t missing;
    std::optional<Op> fails;
    std::string calls;
  } kCopies[] = {
      {"in pieces", 0, {}, kCopy},
      {"one byte short", 1, {}, "open 32768 0, fstat, close"},
      {"no descriptor", 0, Op::open, "open 32768 0"},
      {"no size", 0, Op::fstat, "open 32768 0, fstat, close"},
  };
  for (const auto& copy : kCopies) {
    mirror->files.clear();
    {
      Stream stream = open(FlvBuilder().tag(kVideo, 1, 400).tag(kVideo, 2, 557));
      attach(stream, nullptr);
      adaptor().setUserData(nullptr, mirror.get());
      script();
      missing = copy.missing;
      if (copy.fails) host.failCall(1, Fault::fails, copy.fails);
      attach(stream, mirror.get());
      EXPECT_EQ(script(), copy.calls) << copy.name;
      const KTPtr<MirrorConn> other{new MirrorConn};
      attach(stream, other.get());
      attach(stream, nullptr);
      EXPECT_EQ(script(), "") << copy.name;
      EXPECT_EQ(mirror->getRefCount(), 2) << copy.name;
      EXPECT_EQ(other->getRefCount(), 1) << copy.name;
      // What is written later arrives in any case.
      stage(stream, {{kAudio, 50, payload(kAudio, 30, 1)}});
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
  Stream stream = openRecord();
  stage(stream, {{kVideo, 10, payload(kVideo, 957 + 15, 1)}});
  EXPECT_TRUE(stream.flush());
  stage(stream, {{kVideo, 20, payload(kVideo, 100, 1)}});
  script();
  attach(stream, mirror.get());
  EXPECT_EQ(script(), "close, " + kCopy + ", open 32770 384");
  EXPECT_EQ(mirror->files[kFile].bytes(), bytes());
  mirror->answer = -1;  // of no consequence
  for (u32 i = 0; i < 3; ++i) {
    stage(stream, {{kAudio, 50 + i, payload(kAudio, 30, i)}});
    EXPECT_TRUE(stream.flush());
    EXPECT_EQ(mirror->files[kFile].bytes(), bytes()) << i;
  }
  EXPECT_EQ(bytes().size(), 1000u + 115 + 3 * 45);

  // Unless the file doesn't open again.
  Stream other = openRecord();
  const KTPtr<MirrorConn> late{new MirrorConn};
  host.failCall(2, Fault::fails, Op::open);
  attach(other, late.get());
  EXPECT_EQ(late->files[kFile].bytes(), bytes());
  EXPECT_TRUE(other.stage(kVideo, 10, {0x12}));
  EXPECT_FALSE(other.flush());
}

}  // namespace
}  // namespace orv::test
