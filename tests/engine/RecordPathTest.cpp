// What becomes of each message: refused, staged, noted; and how a flush brings the metadata up to date.

#include <thread>

#include "RecordTest.h"
#include "modules/streams/flv/FrameRecord.h"
#include "util/KTThrowable.h"

namespace orv::test {
namespace {

using namespace amf;
using RecordPathTest = RecordTest;

Bytes behind(const Bytes& file, std::size_t position) {
  return Bytes(file.begin() + static_cast<std::ptrdiff_t>(position), file.end());
}

TEST_F(RecordPathTest, messages) {
  const std::string h264 = "2Recording H264 to FLV is unsupported, tried in FLV : c:\\media\\film.flv";
  const std::string aac = "2Recording AAC to FLV is unsupported, tried in FLV : c:\\media\\film.flv";
  const Bytes video{0x12, 7}, sound{0x2F, 7};
  const struct {
    const char* name;
    std::vector<Message> messages;
    u32 flags;
    std::vector<std::size_t> dropped{};
    std::vector<std::string> log{};
  } kRecordings[] = {
      {"video", {{kVideo, 40, video}}, 1},
      {"sound", {{kAudio, 40, sound}}, 4},
      {"both", {{kAudio, 40, sound}, {kVideo, 60, video}}, 5},
      {"empty video", {{kVideo, 1, {}}}, 1},
      {"empty sound", {{kAudio, 1, {}}}, 0},
      {"data", {{kData, 5, text("onCuePoint")}}, 8},
      {"filter bit and a type that is none",
       {{kVideo | 0x20, 1, video}, {0x28, 2, sound}, {3, 3, sound}},
       13},
      {"high byte of the type is ignored", {{0xFF09, 1, video}}, 1},
      {"times as they come", {{kVideo, 0x01020304, video}, {kVideo, 5, video}, {kAudio, 0, sound}}, 5},
      {"H.264, twice", {{kVideo, 1, video}, {kVideo, 2, {0x17, 0}}, {kVideo, 3, {0x27}}}, 1, {1, 2}, {h264}},
      {"AAC, twice", {{kAudio, 1, {0xAF, 0}}, {kAudio, 2, {0xA0}}, {kAudio, 3, sound}}, 4, {0, 1}, {aac}},
      {"empty ones aren't refused", {{kVideo, 1, {}}, {kAudio, 2, {}}}, 1},
      {"only their own types are", {{kVideo, 1, {0xA2}}, {kAudio, 2, {0x17}}, {kVideo | 0x20, 3, {0x17}}}, 5},
      {"too long for a tag", {{kVideo, 1, Bytes(0x1000000, 2)}, {kVideo, 2, video}}, 1, {0}},
      {"bad data at another time", {{kData, 1, {35}}, {kData, 2, {}}}, 8},
  };
  for (const auto& recording : kRecordings) {
    host.remove(kFile);
    host.log.clear();
    Stream stream = openRecord();
    Bytes expected;
    for (std::size_t i = 0; i < recording.messages.size(); ++i) {
      const Message& message = recording.messages[i];
      EXPECT_TRUE(stream.stage(message.type, message.time, message.data)) << recording.name;
      if (std::count(recording.dropped.begin(), recording.dropped.end(), i) == 0)
        expected = expected + tagBytes(static_cast<u8>(message.type), message.time, message.data);
    }
    EXPECT_EQ(bytes().size(), kFirstTag) << recording.name;
    EXPECT_TRUE(stream.flush()) << recording.name;
    EXPECT_EQ(behind(bytes(), kFirstTag), expected) << recording.name;
    EXPECT_EQ(bytes()[flv::kTypeFlagsPosition], recording.flags) << recording.name;
    EXPECT_EQ(stream.type(), recording.flags) << recording.name;
    std::vector<std::string> log;
    for (const LogLine& line : host.log) log.push_back(std::to_string(line.level) + line.text);
    EXPECT_EQ(log, recording.log) << recording.name;
  }
}

TEST_F(RecordPathTest, rewrittenMetadata) {
  const Bytes two{4, 2}, zero{4, 0}, half = Bytes{5} + ieee(0.5), yes{3}, no{2}, five = Bytes{5} + ieee(5);
  const struct {
    const char* name;
    Bytes sent, kept;  // Behind the name.
    u8 type = kData;
  } kPayloads[] = {
      {"array",
       array({{"a", text("b")},
              {"duration", number(0)},
              {"videocodecid", number(0)},
              {"audiocodecid", number(0)},
              {"canSeekToEnd", boolean(true)}},
             9),
       array({{"a", text("b")},
              {"duration", number(5)},
              {"videocodecid", number(2)},
              {"audiocodecid", number(2)},
              {"canSeekToEnd", boolean(false)}},
             0)},
      {"object",
       object({{"DURATION", number(9)},
               {"VideoCodecId", number(0)},
               {"AUDIOCODECID", number(0)},
               {"canseektoend", boolean(true)}}),
       object({{"DURATION", number(5)},
               {"VideoCodecId", number(2)},
               {"AUDIOCODECID", number(2)},
               {"canseektoend", boolean(false)}})},
      {"codecs that are known",
       object({{"videocodecid", number(4)}, {"audiocodecid", text("7")}, {"duration", number(0)}}),
       object({{"videocodecid", number(4)}, {"audiocodecid", text("7")}, {"duration", number(5)}})},
      {"count alone", array({{"canSeekToEnd", boolean(false)}}, 1),
       array({{"canSeekToEnd", boolean(false)}}, 0)},
      {"codec as a text", object({{"videocodecid", text("FLV1")}, {"duration", number(0)}}), {}},
      {"duration as a text", object({{"duration", text("00:05")}}), {}},
      {"a text as long as a number", object({{"duration", text("00:05:")}}),
       object({{"duration", number(5)}})},
      {"no key of ours", array({{"width", number(320)}}, 1), {}},
      {"no container", number(0), {}},
      {"nothing", {}, {}},
      {"cut", {3, 0, 8, 'd', 'u', 'r', 'a', 't', 'i', 'o', 'n', 0, 0, 0}, {}},
      {"AMF3 array", array3({{"duration", five}, {"videocodecid", zero}, {"canSeekToEnd", yes}}),
       array3({{"duration", five}, {"videocodecid", two}, {"canSeekToEnd", no}}), kData3},
      {"AMF3 array with another duration", array3({{"duration", half}}), array3({{"duration", five}}),
       kData3},
      {"AMF3 codec as a double",
       array3({{"duration", half}, {"videocodecid", Bytes{5} + ieee(0)}}),
       {},
       kData3},
      {"AMF3 duration as an integer", array3({{"duration", zero}}), {}, kData3},
      {"AMF3 object", array3({{"duration", half}}, {17, 10, 11, 1}), {}, kData3},
      {"AMF0 object in an AMF3 message", object({{"duration", number(0)}}), object({{"duration", number(5)}}),
       kData3},
  };
  for (const auto& payload : kPayloads) {
    host.remove(kFile);
    const Bytes zeroByte = payload.type == kData3 ? Bytes{0} : Bytes{};
    const Bytes sent = zeroByte + onMetaData(payload.sent);
    const Bytes kept = payload.kept.empty() ? sent : zeroByte + onMetaData(payload.kept);
    Stream stream = openRecord();
    for (const Message& m : {Message{payload.type, 0, sent},
                             {kAudio, 10, {0x2F}},
                             {kVideo, 4999, {0x12}},
                             {kVideo, 5000, {0x24}},
                             {kData, 0, sent}})
      EXPECT_TRUE(stream.stage(m.type, m.time, m.data));
    EXPECT_TRUE(stream.flush());
    EXPECT_EQ(behind(bytes(), kFirstTag), tagBytes(payload.type, 0, kept) + tagBytes(kAudio, 10, {0x2F}) +
                                              tagBytes(kVideo, 4999, {0x12}) +
                                              tagBytes(kVideo, 5000, {0x24}) + tagBytes(kData, 0, sent))
        << payload.name;
    EXPECT_EQ(stream.metadata(), kept) << payload.name;
  }
}

// Which message is the metadata.
TEST_F(RecordPathTest, notedMetadata) {
  const Bytes old = onMetaData(object({{"duration", number(0)}})),
              fresh = onMetaData(object({{"duration", number(0.05)}})),
              later = onMetaData(object({{"duration", number(0.09)}}));
  const Bytes other = onMetaData(object({{"duration", number(0)}}), "onMetadata");
  const struct {
    const char* name;
    std::vector<Message> messages;
    std::size_t noted;   // The one that is rewritten; any other number for none.
    std::size_t inHead;  // The one that later flushes find in the file and rewrite.
  } kRecordings[] = {
      {"first of all", {{kData, 0, old}, {kVideo, 50, {2}}}, 0, 0},
      {"behind another time", {{kVideo, 50, {2}}, {kData, 0, old}, {kData, 0, old}}, 1, 9},
      {"behind data of another name", {{kData, 0, other}, {kData, 0, old}, {kVideo, 50, {2}}}, 1, 1},
      {"at another time", {{kData, 1, old}, {kVideo, 50, {2}}}, 9, 9},
      {"of another type", {{kVideo, 0, old}, {20, 0, old}, {kVideo, 50, {2}}}, 9, 9},
      {"filtered", {{kData | 0x20, 0, old}, {kVideo, 50, {2}}}, 9, 0},
  };
  for (const auto& recording : kRecordings) {
    host.remove(kFile);
    Stream stream = openRecord();
    for (const auto& message : recording.messages) stream.stage(message.type, message.time, message.data);
    EXPECT_TRUE(stream.flush());
    const auto tags = [&](std::size_t rewritten, const Bytes& metadata) {
      Bytes out;
      for (std::size_t i = 0; i < recording.messages.size(); ++i) {
        const auto& [type, time, data] = recording.messages[i];
        out = out + tagBytes(static_cast<u8>(type), time, i == rewritten ? metadata : data);
      }
      return out;
    };
    EXPECT_EQ(behind(bytes(), kFirstTag), tags(recording.noted, fresh)) << recording.name;
    stream.stage(kAudio, 90, {0x2F});
    EXPECT_TRUE(stream.flush());
    const Bytes last = recording.inHead < 9 ? tags(recording.inHead, later) : tags(recording.noted, fresh);
    EXPECT_EQ(behind(bytes(), kFirstTag), last + tagBytes(kAudio, 90, {0x2F})) << recording.name;
  }
}

// A message that isn't staged leaves no trace, so nothing is written where it would have stood.
TEST_F(RecordPathTest, metadataThatIsNotStaged) {
  Stream stream = openRecord();
  const Bytes big = onMetaData(object({{"duration", number(0)}})) + text("x") + Bytes(0x1000000);
  EXPECT_TRUE(stream.stage(kData, 0, big));
  EXPECT_TRUE(stream.stage(kVideo, 40, {0x12}));
  EXPECT_TRUE(stream.flush());
  EXPECT_EQ(behind(bytes(), kFirstTag), tagBytes(kVideo, 40, {0x12}));
  EXPECT_TRUE(adaptor().record(stream.handle, kVideo, nullptr, 5, 50));  // nothing can be copied
  EXPECT_TRUE(adaptor().record(stream.handle, kVideo, nullptr, 0, 50));
  EXPECT_EQ(stream.flush()->endPosition, 13 + 16 + 15 - 1);
}

TEST_F(RecordPathTest, metadataWithoutAPlace) {
  Stream stream = openRecord();
  host.failCall(1, Fault::fails, Op::fstat);
  const Bytes sent = onMetaData(object({{"duration", number(0)}}));
  EXPECT_TRUE(stream.stage(kData, 0, sent));
  EXPECT_TRUE(host.faultFired());
  EXPECT_TRUE(stream.stage(kVideo, 40, {0x12}));
  EXPECT_TRUE(stream.flush());
  const Bytes header{'F', 'L', 'V', 1, 9, 0, 0, 0, 9, 0, 0, 0, 0};
  EXPECT_EQ(bytes(), header + tagBytes(kData, 0, sent) + tagBytes(kVideo, 40, {0x12}));
}

TEST_F(RecordPathTest, metadataThatBreaksTheConnection) {
  Stream stream = openRecord();
  const Bytes bad = onMetaData({35});
  for (int i = 0; i < 2; ++i) {
    try {
      stream.stage(kData, 0, bad);
      ADD_FAILURE();
    } catch (const KTBreakConnection& broken) {
      EXPECT_EQ(broken.code, KTBreakConnection::kMalformedData);
    }
  }
  EXPECT_THROW(stream.stage(kData, 0, bad), KTException);
  EXPECT_THROW(stream.stage(kData, 0, bad), KTThrowable);
  // From another thread, which a lock left behind would stop.
  std::thread([&] { EXPECT_TRUE(stream.stage(kVideo, 40, {0x12})); }).join();
  std::thread([&] { EXPECT_TRUE(stream.flush()); }).join();
  EXPECT_EQ(behind(bytes(), kFirstTag), tagBytes(kVideo, 40, {0x12}));
}

// What the read cache holds of the file before a flush has no say, though the host's clock stands still.
TEST_F(RecordPathTest, flagsAreTheFiles) {
  host.clockStep = 0;
  Stream stream = openRecord();
  stream.stage(kVideo, 40, {0x12});
  host.beforeCall = [&](const Call& call) {
    if (call.op == Op::write && call.position == 4)
      host.beforeCall = [&](const Call& next) {
        if (next.op == Op::read) host.overwrite(kFile, 4, {0x41});
      };
  };
  EXPECT_TRUE(stream.flush());
  EXPECT_EQ(stream.type(), 0x41u);
  EXPECT_EQ(stream.size(), 13 + 16);
}

// Written once, in order, whatever happened to the flags; metadata that came meanwhile is found in its place,
// and what a search has seen meanwhile is entered once.
TEST_F(RecordPathTest, flagsThatFailAndMoreTags) {
  using namespace amf;
  const auto metadata = [](double seconds) { return onMetaData(object({{"duration", number(seconds)}})); };
  for (const auto& [tagsFault, searches] : {std::pair(Fault::fails, false), {Fault::fallsShort, false},
                                            {Fault::fallsShort, true}, {Fault::fails, true}}) {
    host.remove(kFile);
    Stream stream = openRecord();
    Bytes expected;
    for (u32 i = 0; i < 4; ++i) {
      if (i == 2 && !searches) {
        stream.stage(kData, 0, metadata(0)), expected = expected + tagBytes(kData, 0, metadata(0.12));
      }
      const Bytes data = payload(kVideo, 100, i);
      stream.stage(kVideo, 40 * i, data), expected = expected + tagBytes(kVideo, 40 * i, data);
      u32 write = 0;
      host.beforeCall = [&](const Call& call) {
        if (i == 3 || call.op != Op::write) return;
        if (++write == 1 && i > 0) host.failCall(1, tagsFault, Op::write);
        if (write == 2) host.failCall(1, Fault::fails, Op::write);
      };
      EXPECT_EQ(stream.flush().has_value(), i == 3);
      EXPECT_EQ(host.openDescriptors(), i == 3 ? 0u : 1u);
      if (searches && stream.size() > kFirstTag) stream.walk();
    }
    host.beforeCall = nullptr;
    EXPECT_EQ(behind(bytes(), kFirstTag), expected);
    i64 next = 0;
    for (const SegmentBounds& segment : stream.walk()) {
      EXPECT_EQ(segment.startPosition, next);
      next = segment.endPosition + 1;
    }
    EXPECT_EQ(next, static_cast<i64>(bytes().size()));
  }
}

TEST_F(RecordPathTest, bounds) {
  Stream stream = openRecord();
  const struct {
    u32 firstTime, lastTime;
    SegmentBounds bounds;
  } kFlushes[] = {
      {20, 40, {0, 12 + 32, 0, 41}}, {60, 90, {13 + 32, 12 + 64, 40, 91}}, {0, 5, {13 + 64, 12 + 96, 90, 6}}};
  for (const auto& [first, last, bounds] : kFlushes) {
    stream.stage(kVideo, first, {0x12}), stream.stage(kVideo, last, {0x12});
    const auto flushed = stream.flush();
    ASSERT_TRUE(flushed);
    EXPECT_EQ(std::memcmp(&*flushed, &bounds, sizeof bounds), 0) << last;
    const auto found = stream.atPosition(flushed->startPosition);
    ASSERT_TRUE(found);
    EXPECT_EQ(std::memcmp(&*found, &bounds, sizeof bounds), 0) << last;
  }
  // An empty flush enters nothing and still counts.
  EXPECT_EQ(stream.walk().size(), 3u);
  const u32 before = adaptor().getMemoryOverhead(stream.handle);
  stream.stage(kVideo, 1, {0x17});
  EXPECT_TRUE(stream.flush());
  EXPECT_EQ(adaptor().getMemoryOverhead(stream.handle) - before, sizeof(flv::SegmentRange));
  EXPECT_EQ(stream.walk().size(), 3u);
}

TEST_F(RecordPathTest, bufferGrowsByDoubling) {
  Stream stream = openRecord();
  const u32 empty = adaptor().getMemoryOverhead(stream.handle) - 32768;
  const struct {
    u32 size, capacity;
  } kSteps[] = {{32768 - 15, 32768}, {0, 65536}, {100'000, 262'144}, {20, 262'144}};
  for (const auto& [size, capacity] : kSteps) {
    stream.stage(kVideo, 10, payload(kVideo, size, size));
    EXPECT_EQ(adaptor().getMemoryOverhead(stream.handle) - empty, capacity);
  }
  stream.flush();
  stream.stage(kVideo, 20, {0x12});
  EXPECT_EQ(adaptor().getMemoryOverhead(stream.handle) - empty - sizeof(flv::SegmentRange), 32768u);
  const Bytes file = bytes();
  EXPECT_EQ(behind(file, file.size() - 35), tagBytes(kVideo, 10, payload(kVideo, 20, 20)));
}

// Behind whatever stands there.
TEST_F(RecordPathTest, ontoAFileThatIsThere) {
  const FlvBuilder whole = FlvBuilder().tag(kVideo, 100, 20).tag(kVideo, 200, 20);
  const struct {
    const char* name;
    Bytes file;
    bool opens;
    i64 startPosition;  // Of the flush.
    std::size_t size = 0;
  } kFiles[] = {
      {"no byte", {}, true, 0},
      {"header alone", FlvBuilder().bytes(), true, 0},
      {"two tags", whole.bytes(), true, whole.size()},
      {"a torn end", FlvBuilder(whole).tag(kVideo, 300, 20).raw({9, 0, 0}).bytes(), true, whole.size()},
      {"another version", {'F', 'L', 'V', 2, 0, 0, 0, 0, 9, 0, 0, 0, 0}, false, 0},
      {"no FLV", Bytes(20), false, 0},
      {"three bytes", {'F', 'L', 'V'}, false, 0},
  };
  for (const auto& file : kFiles) {
    host.put(kFile, file.file);
    EXPECT_EQ(bool(openRecord()), file.opens) << file.name;
    if (!file.opens) continue;
    Stream stream = openRecord();
    const Bytes before = bytes();
    for (u32 i = 0; i < 4; ++i) stream.stage(kVideo, i, {0x22});
    const auto bounds = stream.flush();
    ASSERT_TRUE(bounds) << file.name;
    EXPECT_EQ(bounds->startPosition, file.startPosition) << file.name;
    EXPECT_EQ(bytes().size(), before.size() + 64) << file.name;
    EXPECT_TRUE(std::equal(before.begin() + 5, before.end(), bytes().begin() + 5)) << file.name;
  }
  // A stream for playing records too; its opening may fail later.
  host.put(kFile, whole.bytes());
  Stream player = open();
  EXPECT_TRUE(player.stage(kAudio, 5, {0x2F}));
  EXPECT_TRUE(player.flush());
  EXPECT_EQ(player.type(), 5u);
  host.put(kFile, Bytes(20));
  EXPECT_FALSE(player.stage(kAudio, 6, {0x2F}));
  EXPECT_TRUE(player.stage(kAudio, 7, {0x2F}));  // isn't tried again
}

}  // namespace
}  // namespace orv::test
