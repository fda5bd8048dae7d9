// What recording asks of the host and of the mirror, call by call, and the bytes that come of it.

#include "RecordTest.h"

namespace orv::test {
namespace {

using namespace amf;

// What a recording always asks: opening the file, the place of the metadata, the flags byte and the scan.
const std::string kCreate =
    "stat, mkdir c:\\media, open 33538 384, m:open 33538 384, fstat, fstat, m:seek 0 2, ";
const std::string kNewHeader =
    "write 0+3, m:seek 0 0, m:write 3, write 3+1, m:seek 3 0, m:write 1, write 4+1, m:seek 4 0, m:write 1, "
    "write 5+4, m:seek 5 0, m:write 4, write 9+4, m:seek 9 0, m:write 4, ";
const std::string kFirstScan = "stat, read 4, fstat, read 0";
const std::string kAppend =
    "stat, open 32770 0, m:open 32770 0, fstat, fstat, m:seek 0 2, stat, fstat, read 0";
const std::string kFileEnd = "fstat, m:seek 0 2";
const std::string kFlags = ", m:seek 4 0, write 4+1, m:seek 4 0, m:write 1";
const std::string kFinish = ", stat, read 4, fstat, read 0, close, m:close, stat";

std::string tagsAt(int position, int size) {
  const auto at = std::to_string(position), bytes = std::to_string(size);
  const std::string mirrored = size > 0 ? ", m:seek " + at + " 0, m:write " + bytes : "";
  return ", write " + at + '+' + bytes + mirrored;
}
std::string metadataAt(int position, int size) {
  return ", m:seek " + std::to_string(position) + " 0" + tagsAt(position, size);
}

Bytes fileHeader(u8 flags) {
  return {'F', 'L', 'V', 1, flags, 0, 0, 0, 9, 0, 0, 0, 0};
}

class RecordCallsTest : public RecordTest {
 protected:
  void expectMirrored(const char* after) { EXPECT_EQ(mirror->files[kFile].bytes(), bytes()) << after; }
};

TEST_F(RecordCallsTest, lifeOfAFile) {
  const Bytes before = onMetaData(array({{"duration", number(0)}, {"videocodecid", number(0)}}, 2));
  const auto updated = [](double seconds) {
    return onMetaData(array({{"duration", number(seconds)}, {"videocodecid", number(2)}}, 0));
  };
  const Bytes key{0x12, 1, 2}, sound{0x2F, 3};
  ASSERT_EQ(before.size(), 63u);
  std::optional<Stream> stream;
  const auto film = [&](u8 flags, double seconds) {
    return fileHeader(flags) + tagBytes(kData, 0, updated(seconds)) + tagBytes(kVideo, 40, key);
  };
  const struct {
    const char* name;
    std::function<bool()> act;
    std::string calls;
    Bytes file;
  } kSteps[] = {
      {"open a new file",
       [&] {
         stream.emplace(adaptor(), kName, Stream::record, mirror.get());
         return bool(*stream);
       },
       kCreate + kNewHeader + kFirstScan, fileHeader(0)},
      {"metadata", [&] { return stream->stage(kData, 0, before); }, kFileEnd, fileHeader(0)},
      {"more metadata", [&] { return stream->stage(kVideo, 40, key); }, "", fileHeader(0)},
      {"flush", [&] { return stream->flush().has_value(); },
       kFileEnd + tagsAt(13, 96) + kFlags + metadataAt(24, 63) + kFinish, film(9, 0.04)},
      {"flush again", [&] { return !stream->flush(); }, "", film(9, 0.04)},
      {"go on behind the end", [&] { return stream->stage(kAudio, 0x01020304, sound); }, kAppend,
       film(9, 0.04)},
      {"second flush", [&] { return stream->flush().has_value(); },
       kFileEnd + tagsAt(109, 17) + kFlags + metadataAt(24, 63) + kFinish,
       film(13, 16909.06) + Bytes{8, 0, 0, 2, 2, 3, 4, 1, 0, 0, 0, 0x2F, 3, 0, 0, 0, 13}},
      {"close",
       [&] {
         stream.reset();
         return true;
       },
       "", film(13, 16909.06) + tagBytes(kAudio, 0x01020304, sound)},
      {"open again",
       [&] {
         stream.emplace(adaptor(), kName, Stream::record, mirror.get());
         return bool(*stream);
       },
       "stat, open 32770 0, m:open 32770 0, fstat, read 0, fstat, m:seek 0 2, stat, fstat, read 0",
       film(13, 16909.06) + tagBytes(kAudio, 0x01020304, sound)},
      {"flush of nothing", [&] { return stream->flush().has_value(); },
       kFileEnd + tagsAt(126, 0) + kFlags + metadataAt(24, 63) + kFinish,
       film(13, 16909.06) + tagBytes(kAudio, 0x01020304, sound)},
      {"a tag that goes nowhere", [&] { return stream->stage(kAudio, 50, sound); }, kAppend,
       film(13, 16909.06) + tagBytes(kAudio, 0x01020304, sound)},
      {"erase", [&] { return adaptor().erase(stream->handle); }, "close, m:close, unlink, m:unlink", {}},
      {"still staging", [&] { return stream->stage(kAudio, 60, sound) && !stream->flush(); }, "", {}},
      {"erase twice", [&] { return !adaptor().erase(stream->handle); }, "unlink", {}},
      {"close without a file",
       [&] {
         stream.reset();
         return true;
       },
       "",
       {}},
  };
  for (const auto& step : kSteps) {
    EXPECT_TRUE(step.act()) << step.name;
    EXPECT_EQ(script(), step.calls) << step.name;
    EXPECT_EQ(host.exists(kFile), !step.file.empty()) << step.name;
    if (!host.exists(kFile)) continue;
    EXPECT_EQ(bytes(), step.file) << step.name;
    expectMirrored(step.name);
  }
  EXPECT_FALSE(mirror->files.contains(kFile));
}

// Directories are what stands before the last backslash, if there is a dot anywhere.
TEST_F(RecordCallsTest, directories) {
  const struct {
    const char* path;
    const char* directory;
  } kPaths[] = {{"a\\b\\film", "a\\b"}, {"film", "film.flv"}, {"a/film", "a/film.flv"}, {"\\film", ""}};
  for (const auto& path : kPaths) {
    ASSERT_TRUE(Stream(adaptor(), path.path, Stream::record)) << path.path;
    EXPECT_EQ(script().substr(0, 29 + std::strlen(path.directory)),
              std::string("stat, mkdir ") + path.directory + ", open 33538 384,")
        << path.path;
  }
}

struct Failure {
  const char* name;
  u32 call;  // Of its kind, from the step on.
  Op op;
  Fault fault;
};

// Each step of an opening that goes wrong, and what it leaves.
TEST_F(RecordCallsTest, openingsThatFail) {
  const struct {
    Failure failure;
    bool exists;  // Before.
    bool opens;
    std::string calls;
    std::size_t size;  // Of the file, after.
  } kFailures[] = {
      {{"stat: taken for missing", 1, Op::stat, Fault::fails},
       true,
       true,
       kCreate + kNewHeader + kFirstScan,
       13},
      {{"mkdir", 1, Op::mkdir, Fault::fails}, false, true, kCreate + kNewHeader + kFirstScan, 13},
      {{"open", 1, Op::open, Fault::fails}, false, false, "stat, mkdir c:\\media, open 33538 384", 0},
      {{"open of a file that is there", 1, Op::open, Fault::fails}, true, false, "stat, open 32770 0", 48},
      {{"header's size", 1, Op::fstat, Fault::fails},
       true,
       false,
       "stat, open 32770 0, m:open 32770 0, fstat, close, m:close",
       48},
      {{"header", 1, Op::read, Fault::fails},
       true,
       false,
       "stat, open 32770 0, m:open 32770 0, fstat, read 0, close, m:close",
       48},
      {{"end of a new file", 2, Op::fstat, Fault::fails},
       false,
       false,
       "stat, mkdir c:\\media, open 33538 384, m:open 33538 384, fstat, fstat, stat, read 4, close, m:close",
       0},
      {{"end of a file", 2, Op::fstat, Fault::fails},
       true,
       true,
       "stat, open 32770 0, m:open 32770 0, fstat, read 0, fstat, stat, fstat, read 0",
       48},
      {{"first piece", 1, Op::write, Fault::fails}, false, false, kCreate + "write 0+3, close, m:close", 0},
      {{"second piece", 2, Op::write, Fault::fails},
       false,
       false,
       kCreate + "write 0+3, m:seek 0 0, m:write 3, write 3+1, close, m:close",
       3},
      {{"last piece", 5, Op::write, Fault::fails},
       false,
       false,
       kCreate + kNewHeader.substr(0, kNewHeader.find("write 9")) + "write 9+4, close, m:close",
       9},
      {{"short piece: the mirror is told all of it", 5, Op::write, Fault::fallsShort},
       false,
       false,
       kCreate + kNewHeader + "stat, read 4, fstat, read 0, read 13, read 0, close, m:close",
       11},
      {{"scan", 1, Op::read, Fault::fails},
       false,
       false,
       kCreate + kNewHeader + "stat, read 4, close, m:close",
       13},
  };
  for (const auto& [failure, exists, opens, calls, size] : kFailures) {
    host.remove(kFile);
    if (exists) host.put(kFile, FlvBuilder().tag(kVideo, 7, 20).bytes());
    host.failCall(failure.call, failure.fault, failure.op);
    {
      Stream stream = openRecord(mirror.get());
      EXPECT_EQ(bool(stream), opens) << failure.name;
      EXPECT_EQ(script(), calls) << failure.name;
    }
    script();
    EXPECT_TRUE(host.faultFired()) << failure.name;
    EXPECT_EQ(host.exists(kFile) ? bytes().size() : 0, size) << failure.name;
    EXPECT_EQ(host.openDescriptors(), 0u) << failure.name;
  }
}

// Each step of a flush that goes wrong: its result, and the file after it and after the flush that follows.
TEST_F(RecordCallsTest, flushesThatFail) {
  const Bytes before = onMetaData(object({{"duration", number(0)}})),
              after = onMetaData(object({{"duration", number(0.04)}}));
  const Bytes half = onMetaData(object({{"duration", Bytes{0, 0x3F, 0xA4, 0x7A, 0xE1}}}));
  const Bytes video = tagBytes(kVideo, 40, {0x12, 1, 2}), data = tagBytes(kData, 0, before);
  const Bytes whole = fileHeader(9) + tagBytes(kData, 0, after) + video;
  const std::string tags = kFileEnd + tagsAt(13, 69), rewrite = metadataAt(24, 36);
  const std::string again = "stat, open 32770 0, m:open 32770 0, fstat, fstat";
  const struct {
    Failure failure;
    bool result;
    std::string calls;
    Bytes file;        // After it...
    std::string next;  // What a second flush asks,
    Bytes last;        // and what it leaves.
  } kFailures[] = {
      {{"none", 0, Op::open, Fault::fails}, true, tags + kFlags + rewrite + kFinish, whole, "", whole},
      {{"file end", 1, Op::fstat, Fault::fails},
       false,
       "fstat",
       fileHeader(0),
       tags + kFlags + rewrite + kFinish,
       whole},
      {{"tags", 1, Op::write, Fault::fails},
       true,
       kFileEnd + ", write 13+69" + kFlags + kFinish,
       fileHeader(9),
       "",
       fileHeader(9)},
      {{"tags fall short inside the metadata", 1, Op::write, Fault::fallsShort},
       true,
       tags + kFlags + ", stat, read 4, fstat, close, m:close, stat",
       fileHeader(9) + Bytes(data.begin(), data.begin() + 34),
       "",
       {}},
      {{"flags byte", 2, Op::write, Fault::fails},
       false,
       tags + ", m:seek 4 0, write 4+1",
       fileHeader(0) + data + video,
       kFileEnd + ", write 82+0" + kFlags + rewrite + kFinish,
       whole},
      {{"flags byte falls short", 2, Op::write, Fault::fallsShort},
       false,
       tags + ", m:seek 4 0, write 4+1",
       fileHeader(0) + data + video,
       kFileEnd + ", write 82+0" + kFlags + rewrite + kFinish,
       whole},
      {{"metadata", 3, Op::write, Fault::fails},
       true,
       tags + kFlags + ", m:seek 24 0, write 24+36" + kFinish,
       fileHeader(9) + data + video,
       "",
       {}},
      {{"metadata falls short", 3, Op::write, Fault::fallsShort},
       true,
       tags + kFlags + rewrite + kFinish,
       fileHeader(9) + data + video,
       "",
       {}},
      {{"scan", 1, Op::read, Fault::fails},
       true,
       tags + kFlags + rewrite + ", stat, read 4, close, m:close, stat",
       whole,
       "",
       whole},
      {{"close", 1, Op::close, Fault::fails}, true, tags + kFlags + rewrite + kFinish, whole, "", whole},
      {{"time", 2, Op::stat, Fault::fails}, true, tags + kFlags + rewrite + kFinish, whole, "", whole},
  };
  for (const auto& failure : kFailures) {
    host.remove(kFile);
    Stream stream = openRecord(mirror.get());
    stream.stage(kData, 0, before), stream.stage(kVideo, 40, {0x12, 1, 2});
    script();
    host.failCall(failure.failure.call, failure.failure.fault, failure.failure.op);
    EXPECT_EQ(stream.flush().has_value(), failure.result) << failure.failure.name;
    EXPECT_EQ(script(), failure.calls) << failure.failure.name;
    EXPECT_EQ(host.faultFired(), failure.failure.call != 0) << failure.failure.name;
    EXPECT_EQ(bytes(), failure.file) << failure.failure.name;
    EXPECT_EQ(stream.flush().has_value(), !failure.result) << failure.failure.name;
    EXPECT_EQ(script(), failure.next) << failure.failure.name;
    if (failure.last.empty()) continue;
    EXPECT_EQ(bytes(), failure.last) << failure.failure.name;
  }
}

}  // namespace
}  // namespace orv::test
