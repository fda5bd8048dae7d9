// What recording asks of the host and of the mirror, call by call, and the bytes that come of it.

#include <sys/socket.h>
#include <unistd.h>

#include "RecordTest.h"

namespace orv::test {
namespace {

// What a recording always asks: opening the file, the place of the metadata, the flags byte and the scan.
const std::string kMake = "stat, mkdir c:\\media, open 33538 384";
const std::string kCreate = kMake + ", m:open 33538 384, fstat, fstat, m:seek 0 2, ";
const std::string kMostOfHeader =
    "write 0+3, m:seek 0 0, m:write 3, write 3+1, m:seek 3 0, m:write 1, write 4+1, m:seek 4 0, m:write 1, "
    "write 5+4, m:seek 5 0, m:write 4, ";
const std::string kNewHeader = kMostOfHeader + "write 9+4, m:seek 9 0, m:write 4, ";
const std::string kFirstScan = "stat, read 0, fstat, read 0";
const std::string kOpen = "stat, open 32770 0, m:open 32770 0, fstat";
const std::string kScan = ", stat, fstat, read 0";
const std::string kAppend = kOpen + ", fstat, m:seek 0 2" + kScan;
const std::string kFileEnd = "fstat, m:seek 0 2";
const std::string kFlags = ", m:seek 4 0, write 4+1, m:seek 4 0, m:write 1";
const std::string kClose = ", close, m:close";
const std::string kFinish = ", stat, read 0, fstat, read 0" + kClose + ", stat";

std::string tagsAt(int position, int size) {
  const auto at = std::to_string(position), bytes = std::to_string(size);
  const std::string mirrored = size > 0 ? ", m:seek " + at + " 0, m:write " + bytes : "";
  return ", write " + at + '+' + bytes + mirrored;
}
// Behind a look at the tag that is to be rewritten.
std::string metadataAt(int position, int size) {
  return ", read " + std::to_string(position - 11) + ", m:seek " + std::to_string(position) + " 0" +
         tagsAt(position, size);
}

using RecordCallsTest = RecordTest;

TEST_F(RecordCallsTest, lifeOfAFile) {
  const auto metadata = [](double seconds, double codec, u8 count) {
    return onMetaData("08 000000" + hexOf({count}) + " <duration> 00 =" + std::to_string(seconds) +
                      " <videocodecid> 00 =" + std::to_string(codec) + " 000009");
  };
  const Bytes before = metadata(0, 0, 2), key{0x12, 1, 2}, sound{0x2F, 3};
  ASSERT_EQ(before.size(), 63u);
  const Bytes fresh = fileBytes(0, {}),
              first = fileBytes(9, {{kData, 0, metadata(0.04, 2, 0)}, {kVideo, 40, key}}),
              second = fileBytes(13, {{kData, 0, metadata(16909.06, 2, 0)}, {kVideo, 40, key}}) +
                       Bytes{8, 0, 0, 2, 2, 3, 4, 1, 0, 0, 0, 0x2F, 3, 0, 0, 0, 13},
              third = fileBytes(4, {{kAudio, 0, sound}});
  std::optional<Stream> stream;
  const auto open = [&] {
    stream.emplace(adaptor(), kName, Stream::record, mirror.get());
    return bool(*stream);
  };
  const auto flush = [&] { return stream->flush().has_value(); };
  const auto erase = [&] { return adaptor().erase(stream->handle); };
  const struct {
    const char* name;
    std::function<bool()> act;
    bool result;
    std::string calls;
    Bytes file;
  } kSteps[] = {
      {"open a new file", open, true, kCreate + kNewHeader + kFirstScan, fresh},
      {"metadata", [&] { return stream->stage(kData, 0, before); }, true, kFileEnd, fresh},
      {"a tag", [&] { return stream->stage(kVideo, 40, key); }, true, "", fresh},
      {"flush", flush, true, kFileEnd + tagsAt(13, 96) + kFlags + metadataAt(24, 63) + kFinish, first},
      {"flush again", flush, false, "", first},
      {"go on behind", [&] { return stream->stage(kAudio, 0x01020304, sound); }, true, kAppend, first},
      {"second flush", flush, true, kFileEnd + tagsAt(109, 17) + kFlags + metadataAt(24, 63) + kFinish,
       second},
      {"close, open again", open, true, kOpen + ", read 0, fstat, m:seek 0 2" + kScan, second},
      {"flush of nothing", flush, true, kFileEnd + tagsAt(126, 0) + kFlags + metadataAt(24, 63) + kFinish,
       second},
      {"erase between two", erase, true, "unlink, m:unlink", {}},
      {"a file anew", [&] { return stream->stage(kAudio, 0, sound); }, true,
       kCreate + kNewHeader + kFirstScan, fresh},
      {"its flush", flush, true, kFileEnd + tagsAt(13, 17) + kFlags + kFinish, third},
      {"a tag that is lost", [&] { return stream->stage(kAudio, 50, sound); }, true, kAppend, third},
      {"erase", erase, true, "close, m:close, unlink, m:unlink", {}},
      {"still staging", [&] { return stream->stage(kAudio, 60, sound); }, true, "", {}},
      {"flush without a file", flush, false, "", {}},
      {"erase twice", erase, false, "unlink", {}},
  };
  for (const auto& step : kSteps) {
    EXPECT_EQ(step.act(), step.result) << step.name;
    EXPECT_EQ(script(), step.calls) << step.name;
    ASSERT_EQ(host.exists(kFile), !step.file.empty()) << step.name;
    ASSERT_EQ(mirror->files.contains(kFile), !step.file.empty()) << step.name;
    if (step.file.empty()) continue;
    EXPECT_EQ(bytes(), step.file) << step.name;
    EXPECT_EQ(mirror->files[kFile].bytes(), step.file) << step.name;
  }
  stream.reset();
  EXPECT_EQ(script(), "");
}

// Directories are what stands before the last backslash, if there is a dot anywhere.
TEST_F(RecordCallsTest, directories) {
  for (const auto& [path, directory] :
       {std::pair("a\\b\\film", "a\\b"), {"a/film", "a/film.flv"}, {"\\film", ""}}) {
    ASSERT_TRUE(Stream(adaptor(), path, Stream::record)) << path;
    const std::string start = std::string("stat, mkdir ") + directory + ", open 33538 384,";
    EXPECT_EQ(script().substr(0, start.size()), start) << path;
  }
}

// Each step of an opening that goes wrong, and what it leaves.
TEST_F(RecordCallsTest, openingsThatFail) {
  const struct {
    const char* name;
    u32 call;  // Of its kind.
    Op op;
    bool exists;  // Before.
    bool opens;
    std::size_t size;  // Of the file, after.
    std::string calls;
    Fault fault = Fault::fails;
  } kFailures[] = {
      {"stat, so missing", 1, Op::stat, true, true, 13, kCreate + kNewHeader + kFirstScan},
      {"mkdir", 1, Op::mkdir, false, true, 13, kCreate + kNewHeader + kFirstScan},
      {"open", 1, Op::open, false, false, 0, kMake},
      {"open of a file that is there", 1, Op::open, true, false, 48, "stat, open 32770 0"},
      {"header's size", 1, Op::fstat, true, false, 48, kOpen + kClose},
      {"header", 1, Op::read, true, false, 48, kOpen + ", read 0" + kClose},
      {"end of a new file", 2, Op::fstat, false, false, 0,
       kMake + ", m:open 33538 384, fstat, fstat, stat, read 0, read 4" + kClose},
      {"end of a file", 2, Op::fstat, true, true, 48, kOpen + ", read 0, fstat" + kScan},
      {"first piece", 1, Op::write, false, false, 0, kCreate + "write 0+3" + kClose},
      {"second piece", 2, Op::write, false, false, 3,
       kCreate + "write 0+3, m:seek 0 0, m:write 3, write 3+1" + kClose},
      {"last piece", 5, Op::write, false, false, 9, kCreate + kMostOfHeader + "write 9+4" + kClose},
      {"short piece: the mirror is told all of it", 5, Op::write, false, false, 11,
       kCreate + kNewHeader + kFirstScan + ", read 13, read 0" + kClose, Fault::fallsShort},
      {"block at the front", 1, Op::read, false, true, 13,
       kCreate + kNewHeader + "stat, read 0, read 4, fstat, read 0"},
      {"size in the scan", 3, Op::fstat, false, false, 13,
       kCreate + kNewHeader + "stat, read 0, fstat, read 0, read 13, read 0" + kClose},
  };
  const FlvBuilder film = FlvBuilder().tag(kVideo, 7, 20);
  for (const auto& failure : kFailures) {
    host.remove(kFile);
    if (failure.exists) host.put(kFile, film.bytes());
    script();
    host.failCall(failure.call, failure.fault, failure.op);
    EXPECT_EQ(bool(openRecord(mirror.get())), failure.opens) << failure.name;
    EXPECT_TRUE(host.faultFired()) << failure.name;
    EXPECT_EQ(script(), failure.calls + (failure.opens ? kClose : "")) << failure.name;
    EXPECT_EQ(host.exists(kFile) ? bytes().size() : 0, failure.size) << failure.name;
  }
}

// Each step of a flush that goes wrong: its result, and the file after it and after the flush that follows.
TEST_F(RecordCallsTest, flushesThatFail) {
  const std::vector<Message> kTags{{kData, 0, durationMetadata(0)}, {kVideo, 40, {0x12, 1, 2}}};
  const Bytes whole = fileBytes(9, {{kData, 0, durationMetadata(0.04)}, kTags[1]});
  const Bytes stale = fileBytes(9, kTags), unflagged = fileBytes(0, kTags);
  const std::string tags = kFileEnd + tagsAt(13, 69), rewrite = metadataAt(24, 36);
  const std::string all = tags + kFlags + rewrite + kFinish;
  const std::string onlyTheRest = kFileEnd + ", write 82+0" + kFlags + rewrite + kFinish;
  const struct {
    const char* name;
    u32 call;  // Of its kind.
    Op op;
    std::string calls;
    Bytes file;
    std::string next{};  // What a second flush asks, if the first one has answered false.
    Fault fault = Fault::fails;
  } kFailures[] = {
      {"none", 0, Op::open, all, whole},
      {"file end", 1, Op::fstat, "fstat", fileBytes(0, {}), all},
      {"tags", 1, Op::write, kFileEnd + ", write 13+69" + kFlags + kFinish, fileBytes(9, {})},
      {"tags fall short inside the metadata", 1, Op::write,
       tags + kFlags + ", stat, read 0, fstat" + kClose + ", stat", Bytes(&stale[0], &stale[13 + 34]), "",
       Fault::fallsShort},
      {"flags byte", 2, Op::write, tags + ", m:seek 4 0, write 4+1", unflagged, onlyTheRest},
      {"flags byte falls short", 2, Op::write, tags + ", m:seek 4 0, write 4+1", unflagged, onlyTheRest,
       Fault::fallsShort},
      {"metadata", 3, Op::write, tags + kFlags + ", read 13, m:seek 24 0, write 24+36" + kFinish, stale},
      {"look at the metadata", 1, Op::read, tags + kFlags + ", read 13" + kFinish, stale},
      {"metadata falls short", 3, Op::write, all, stale, "", Fault::fallsShort},
      {"block at the front", 2, Op::read,
       tags + kFlags + rewrite + ", stat, read 0, read 4, fstat, read 0" + kClose + ", stat", whole},
      {"search for the end", 3, Op::read, all, whole},
      {"close", 1, Op::close, all, whole},
      {"time", 2, Op::stat, all, whole},
  };
  for (const auto& failure : kFailures) {
    host.remove(kFile);
    Stream stream = openRecord(mirror.get());
    stage(stream, kTags);
    script();
    host.failCall(failure.call, failure.fault, failure.op);
    const bool flushed = failure.next.empty();
    EXPECT_EQ(stream.flush().has_value(), flushed) << failure.name;
    EXPECT_EQ(host.faultFired(), failure.call != 0) << failure.name;
    EXPECT_EQ(script(), failure.calls) << failure.name;
    EXPECT_EQ(bytes(), failure.file) << failure.name;
    EXPECT_EQ(stream.flush().has_value(), !flushed) << failure.name;
    EXPECT_EQ(script(), failure.next) << failure.name;
    EXPECT_EQ(bytes(), flushed ? failure.file : whole) << failure.name;
  }
}

// For the copy that a mirror gets when it is attached late, which the module reads itself, the host gives out
// a real descriptor: a socket, from which the file comes in pieces.
class LateMirrorTest : public RecordTest {
 protected:
  LateMirrorTest() {
    host.beforeCall = [this, note = host.beforeCall](const Call& call) {
      note(call);
      const bool forCopy = call.op == Op::open && call.flags == openflags::readOnly && call.mode == 0;
      host.firstDescriptor = forCopy ? startFeed() : 1000;  // Above the real ones.
    };
  }
  ~LateMirrorTest() override { ::close(feed_); }

  std::size_t missing = 0;  // Bytes at the end that don't come.

 private:
  int startFeed() {
    ::close(std::exchange(feed_, -1));
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const Bytes file = bytes();
    for (std::size_t at = 0, size = 0; at < file.size() - missing; at += size) {
      size = std::min<std::size_t>(100, file.size() - missing - at);
      EXPECT_EQ(::write(ends[1], &file[at], size), static_cast<ssize_t>(size));
    }
    ::close(ends[1]);
    return feed_ = ends[0];
  }

  int feed_ = -1;
};

// What is written later arrives in any case.
TEST_F(LateMirrorTest, copyOfAFile) {
  const std::string copied = "open 32768 0, fstat, m:open 33538 384, m:write 1000, m:close, close";
  const struct {
    const char* name;
    bool isRecording;
    std::size_t missing;
    u32 fault;  // The call of its kind that fails.
    Op op;
    std::string calls;
    bool isCopied = false, goesOn = true;
  } kCopies[] = {
      {"in pieces", false, 0, 0, Op::open, copied, true},
      {"one byte short", false, 1, 0, Op::open, "open 32768 0, fstat, close"},
      {"no descriptor", false, 0, 1, Op::open, "open 32768 0"},
      {"no size", false, 0, 1, Op::fstat, "open 32768 0, fstat, close"},
      {"during a recording", true, 0, 0, Op::open, "close, " + copied + ", open 32770 384", true},
      {"no file any more", true, 0, 2, Op::open, "close, " + copied + ", open 32770 384", true, false},
  };
  for (const auto& copy : kCopies) {
    mirror->files.clear();
    mirror->answer = -1;  // Of no consequence.
    {
      Stream stream = open(FlvBuilder().tag(kVideo, 1, 400).tag(kVideo, 2, 557));
      const auto attach = [&](IBackupConn* conn) { adaptor().setUserData(stream.handle, conn); };
      if (copy.isRecording) stage(stream, {{kVideo, 20, payload(kVideo, 100, 1)}});
      attach(nullptr);
      adaptor().setUserData(nullptr, mirror.get());
      script();
      missing = copy.missing;
      host.failCall(copy.fault, Fault::fails, copy.op);
      attach(mirror.get());
      EXPECT_EQ(script(), copy.calls) << copy.name;
      const KTPtr<MirrorConn> other{new MirrorConn};
      attach(other.get());
      attach(nullptr);
      EXPECT_EQ(script(), "") << copy.name;
      EXPECT_EQ(mirror->getRefCount(), 2) << copy.name;
      EXPECT_EQ(other->getRefCount(), 1) << copy.name;
      for (u32 i = 0; i < 3; ++i) {
        stage(stream, {{kAudio, 50 + i, payload(kAudio, 30, i)}});
        EXPECT_EQ(stream.flush().has_value(), copy.goesOn) << copy.name;
      }
    }
    EXPECT_EQ(mirror->getRefCount(), 1) << copy.name;
    Bytes expected = bytes();
    EXPECT_EQ(expected.size(), !copy.goesOn       ? 1000u
                               : copy.isRecording ? 1000u + 115 + 3 * 45
                                                  : 1000u + 3 * 45);
    if (!copy.isCopied) {
      std::fill(expected.begin(), expected.begin() + 1000, 0);
      expected[flv::kTypeFlagsPosition] = 5;
    }
    EXPECT_EQ(mirror->files[kFile].bytes(), expected) << copy.name;
  }
}

}  // namespace
}  // namespace orv::test
