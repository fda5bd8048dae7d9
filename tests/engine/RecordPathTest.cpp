// What becomes of each message: refused, staged, noted; and how a flush brings the metadata up to date.

#include <set>
#include <thread>

#include "RecordTest.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "modules/streams/flv/FrameRecord.h"
#include "support/HeapWatch.h"
#include "util/KTThrowable.h"

namespace orv::test {
namespace {

using RecordPathTest = RecordTest;

TEST_F(RecordPathTest, messages) {
  const std::string h264 = "2Recording H264 to FLV is unsupported, tried in FLV : c:\\media\\film.flv";
  const std::string aac = "2Recording AAC to FLV is unsupported, tried in FLV : c:\\media\\film.flv";
  const Bytes video{0x12, 7}, sound{0x2F, 7};
  const struct {
    const char* name;
    std::vector<Message> messages;
    u8 flags;
    std::set<std::size_t> dropped{};
    std::string log{};
    const char* codecs = "";
  } kRecordings[] = {
      {"times as they come", {{kVideo, 0x01020304, video}, {kVideo, 5, video}, {kAudio, 0, sound}}, 5},
      {"filter bit, no type", {{kVideo | 0x20, 1, video}, {0x28, 2, sound}, {3, 3, sound}}, 13},
      {"high byte of the type is ignored", {{0xFF09, 1, video}}, 1},
      {"H.264", {{kVideo, 1, {0x17}}, {kVideo, 1, {7}}, {3, 1, sound}}, 8, {0, 1}, h264, "classic"},
      {"AAC", {{kAudio, 1, {0xAF}}, {kAudio, 1, {0xA0}}}, 0, {0, 1}, aac, "ALL"},
      {"empty ones aren't refused", {{kVideo, 1, {}}, {kAudio, 2, {}}}, 1},
      {"only their own types are", {{kVideo, 1, {0xA2}}, {kAudio, 2, {0x17}}, {kVideo | 0x20, 3, {0x17}}}, 5},
      {"too long for a tag", {{kVideo, 1, Bytes(0x1000000, 2)}, {kVideo, 2, video}}, 1, {0}},
      // It leaves no trace, so nothing is written where it would have stood.
      {"metadata too long for a tag",
       {{kData, 0, durationMetadata(0) + bytesOf("02 0000 00(16777216)")}, {kVideo, 40, video}},
       1,
       {0}},
      {"bad data at another time", {{kData, 1, {35}}, {kData, 2, {}}}, 8},
  };
  for (const auto& recording : kRecordings) {
    host.remove(kFile);
    host.log.clear();
    configure({{"RecordCodecs", recording.codecs}});
    Stream stream = openRecord();
    stage(stream, recording.messages);
    std::vector<Message> kept;
    for (std::size_t i = 0; i < recording.messages.size(); ++i)
      if (!recording.dropped.contains(i)) kept.push_back(recording.messages[i]);
    EXPECT_TRUE(stream.flush()) << recording.name;
    EXPECT_EQ(bytes(), fileBytes(recording.flags, kept)) << recording.name;
    EXPECT_EQ(stream.type(), recording.flags) << recording.name;
    std::string log;
    for (const LogLine& line : host.log) log += std::to_string(line.level) + line.text;
    EXPECT_EQ(log, recording.log) << recording.name;
  }
}

// A text without its brackets: of each "[sent|kept]" the one or the other.
Bytes metadataOf(u8 type, std::string text, bool kept) {
  for (std::size_t open; (open = text.find('[')) != std::string::npos;) {
    const std::size_t bar = text.find('|', open), close = text.find(']', bar);
    const auto chosen = kept ? text.substr(bar + 1, close - bar - 1) : text.substr(open + 1, bar - open - 1);
    text.replace(open, close + 1 - open, chosen);
  }
  return Bytes(type == kData3 ? 1 : 0) + onMetaData(text);
}

TEST_F(RecordPathTest, rewrittenMetadata) {
  const std::vector<Message> kClassic{
      {kAudio, 10, {0x2F}}, {kAudio, 20, {0x3F}}, {kVideo, 4999, {0x13}}, {kVideo, 5000, {0x24}}};
  const Bytes avc{0x93, 'a', 'v', 'c', '1'}, aac{0x91, 'm', 'p', '4', 'a'};
  const struct {
    const char* name;
    std::string metadata;
    u8 type = kData;
    std::vector<Message> media{};  // Where all codecs are taken; otherwise the classic ones.
  } kRecordings[] = {
      {"array",
       "08 000000[09|00] <a> 02 <b> <duration> 00 =[0|5] <videocodecid> 00 =[0|3] <audiocodecid> 00 =[0|2] "
       "<canSeekToEnd> 01 [01|00] 000009"},
      {"object, in any case", "03 <DURATION> 00 =[9|5] <canseektoend> 01 [01|00] 000009"},
      {"codecs that are known", "03 <videocodecid> 00 =4 <audiocodecid> 02 <7> <duration> 00 =[0|5] 000009"},
      {"video codec alone", "03 <videocodecid> 00 =[0|3] 000009"},
      {"audio codec alone", "03 <audiocodecid> 00 =[0|2] 000009"},
      {"codec as a text", "03 <videocodecid> 02 <FLV1> <duration> 00 =0 000009"},
      {"a text as long as a number", "03 <duration> [02 <00:05:>|00 =5] 000009"},
      {"no key of ours", "08 00000001 <width> 00 =320 000009"},
      {"nothing", ""},
      {"AMF3 array",
       "11 09 01 11'duration' 05 =[0.5|5] 19'videocodecid' 04 [00|03] 19'canSeekToEnd' [03|02] 01", kData3},
      {"AMF3 codec as a double", "11 09 01 11'duration' 05 =0.5 19'videocodecid' 05 =0 01", kData3},
      {"AMF3 object", "11 0A 0B 01 11'duration' 05 =0.5 01", kData3},
      {"AMF0 object in an AMF3 message", "03 <duration> 00 =[0|5] 000009", kData3},
      {"H.264 and AAC",
       "03 <videocodecid> 00 =[0|7] <audiocodecid> 00 =[0|10] <canSeekToEnd> 01 00 000009",
       kData,
       {{kVideo, 0, {0x17, 0}}, {kAudio, 0, {0xAF, 0}}, {kVideo, 5, {0x27}}}},
      {"extended headers",
       "03 <videocodecid> 00 =[0|0x61766331] <audiocodecid> 00 =[0|0x6D703461] <canSeekToEnd> 01 [00|01] "
       "000009",
       kData,
       {{kVideo, 5, avc}, {kAudio, 5, aac}}},
      {"an inter frame last",
       "03 <videocodecid> 00 =[0|0x61766331] <canSeekToEnd> 01 00 000009",
       kData,
       {{kVideo, 5, avc}, {kVideo, 6, {0xA1}}, {kAudio, 6, {0x2F}}}},
      {"no FourCC",
       "03 <videocodecid> 00 =0 <audiocodecid> 00 =0 <duration> 00 =[0|0.005] 000009",
       kData,
       {{kVideo, 5, {0x90, 'a', 'v', 'c'}},
        {kVideo, 5, {0x96, 'a', 'v', 'c', '1'}},
        {kAudio, 5, {0x91}},
        {kAudio, 5, {0x95, 'm', 'p', '4', 'a'}}}},
  };
  for (const auto& [name, metadata, type, media] : kRecordings) {
    host.remove(kFile);
    const bool all = !media.empty();
    configure({{all ? "RecordCodecs" : "none", "all"}});
    Stream stream = openRecord();
    if (!all) stage(stream, {{kVideo, 0, {0x17}}});  // Refused, so that its codec is none.
    std::vector<Message> tags{{type, 0, metadataOf(type, metadata, false)}};
    for (const Message& tag : all ? media : kClassic) tags.push_back(tag);
    stage(stream, tags);
    EXPECT_TRUE(stream.flush());
    tags[0].data = metadataOf(type, metadata, true);
    EXPECT_EQ(bytes(), fileBytes(13, tags)) << name;
    EXPECT_EQ(stream.metadata(), tags[0].data) << name;
    tags.erase(tags.begin());
    EXPECT_EQ(tagsOf(stream), tags) << name;
  }
}

// Which message is the metadata.
TEST_F(RecordPathTest, notedMetadata) {
  const Bytes sent = durationMetadata(0), other = bytesOf("02 <onMetadata> 03 <duration> 00 =0 000009");
  const Message media{kVideo, 50, {2}};
  constexpr std::size_t kNone = 9;
  const struct {
    const char* name;
    std::vector<Message> messages;
    std::size_t noted;   // The one that is rewritten.
    std::size_t inHead;  // The one that later flushes find in the file and rewrite.
    bool endIsUnknown = false;
  } kRecordings[] = {
      {"behind another time", {media, {kData, 0, sent}, {kData, 0, sent}}, 1, kNone},
      {"behind data of another name", {{kData, 0, other}, {kData, 0, sent}, media}, 1, 1},
      {"at another time", {{kData, 1, sent}, media}, kNone, kNone},
      {"of another type", {{kVideo, 0, sent}, {20, 0, sent}, media}, kNone, kNone},
      {"filtered", {{kData | 0x20, 0, sent}, media}, kNone, 0},
      {"without a place", {{kData, 0, sent}, media}, kNone, 0, true},
  };
  for (const auto& [name, messages, noted, inHead, endIsUnknown] : kRecordings) {
    host.remove(kFile);
    Stream stream = openRecord();
    std::vector<Message> tags = messages;
    if (endIsUnknown) host.failCall(1, Fault::fails, Op::fstat);
    stage(stream, tags);
    EXPECT_TRUE(stream.flush());
    if (noted != kNone) tags[noted].data = durationMetadata(0.05);
    EXPECT_EQ(bytes(), fileBytes(9, tags)) << name;
    tags.push_back({kAudio, 90, {0x2F}});
    stage(stream, {tags.back()});
    EXPECT_TRUE(stream.flush());
    if (inHead != kNone) tags[inHead].data = durationMetadata(0.09);
    EXPECT_EQ(bytes(), fileBytes(13, tags)) << name;
  }
}

TEST_F(RecordPathTest, metadataThatBreaksTheConnection) {
  Stream stream = openRecord();
  const Bytes bad = onMetaData("23");
  EXPECT_THROW(stream.stage(kData, 0, bad), KTBreakConnection);
  EXPECT_THROW(stream.stage(kData, 0, bad), KTThrowable);
  // From another thread, which a lock left behind would stop.
  std::thread([&] {
    stage(stream, {{kVideo, 40, {0x12}}});
    EXPECT_TRUE(stream.flush());
  }).join();
  EXPECT_EQ(bytes(), fileBytes(1, {{kVideo, 40, {0x12}}}));
}

// Written once, in order, whatever happened to the flags; metadata that came meanwhile is found in its place,
// and what a search has seen meanwhile is entered once.
TEST_F(RecordPathTest, flagsThatFailAndMoreTags) {
  for (const auto& [fault, searches] : {std::pair(Fault::fails, false),
                                        {Fault::fallsShort, false},
                                        {Fault::fallsShort, true},
                                        {Fault::fails, true}}) {
    host.remove(kFile);
    Stream stream = openRecord();
    std::vector<Message> tags;
    for (u32 i = 0; i < 4; ++i) {
      const std::size_t from = tags.size();
      if (i == 2 && !searches) tags.push_back({kData, 0, durationMetadata(0)});
      tags.push_back({kVideo, 40 * i, payload(kVideo, 100, i)});
      stage(stream, {tags.begin() + static_cast<std::ptrdiff_t>(from), tags.end()});
      u32 write = 0;
      host.beforeCall = [&, fault = fault](const Call& call) {
        if (i == 3 || call.op != Op::write) return;
        if (++write == 1 && i > 0) host.failCall(1, fault, Op::write);
        if (write == 2) host.failCall(1, Fault::fails, Op::write);
      };
      EXPECT_EQ(stream.flush().has_value(), i == 3);
      if (searches && stream.size() > kFirstTag) stream.walk();
    }
    host.beforeCall = nullptr;
    if (!searches) tags[2].data = durationMetadata(0.12);
    EXPECT_EQ(bytes(), fileBytes(searches ? 1 : 9, tags));
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
  const SegmentBounds kFlushes[] = {
      {0, 12 + 32, 0, 41}, {13 + 32, 12 + 64, 40, 91}, {13 + 64, 12 + 96, 90, 6}};
  for (const SegmentBounds& bounds : kFlushes) {
    const u32 last = bounds.endTime - 1;
    stage(stream, {{kVideo, last / 2, {0x12}}, {kVideo, last, {0x12}}});
    EXPECT_EQ(stream.flush(), bounds) << last;
    EXPECT_EQ(stream.atPosition(bounds.startPosition), bounds) << last;
  }
  // An empty flush enters nothing and still counts.
  EXPECT_EQ(stream.walk().size(), 3u);
  const u32 before = adaptor().getMemoryOverhead(stream.handle);
  stream.stage(kVideo, 1, {0x17});
  EXPECT_TRUE(adaptor().record(stream.handle, kVideo, nullptr, 5, 1));  // Nothing can be copied.
  EXPECT_TRUE(stream.flush());
  EXPECT_EQ(adaptor().getMemoryOverhead(stream.handle) - before, sizeof(flv::SegmentRange));
  EXPECT_EQ(stream.walk().size(), 3u);
  // It leaves the last segment its end; so does one whose tags don't reach the file.
  Stream player = open(FlvBuilder().interleaved(3));
  const auto last = player.atTime(40);
  for (const u8 kind : Bytes{0x17, 0x12}) {
    player.stage(kVideo, 41, {kind});
    if (kind == 0x12) host.failCall(1, Fault::fails, Op::write);
    EXPECT_TRUE(player.flush());
    EXPECT_EQ(player.atTime(40), last);
  }
}

// Though a file has one recorder, a second one finds no tag of its own overwritten; nor does a foreign tag
// that has come to stand in the metadata's place.
TEST_F(RecordPathTest, metadataIsRewrittenInItsPlaceOnly) {
  const Message meta{kData, 0, durationMetadata(0)}, rewritten{kData, 0, durationMetadata(0.06)};
  const Message other{kVideo, 50, payload(kVideo, 500, 1)}, mine{kVideo, 60, {0x12}};
  Stream first = openRecord(), second = openRecord();
  stage(first, {meta, mine});
  stage(second, {other});
  EXPECT_TRUE(second.flush());
  EXPECT_TRUE(first.flush());
  EXPECT_EQ(bytes(), fileBytes(9, {other, rewritten, mine}));

  // Nor does a flush that is tried again lose the place, though others have written in between.
  host.remove(kFile);
  Stream again = openRecord(), between = openRecord();
  stage(again, {meta, mine});
  stage(between, {other});
  host.failCall(2, Fault::fails, Op::write);
  EXPECT_FALSE(again.flush());
  EXPECT_TRUE(between.flush());
  EXPECT_TRUE(again.flush());
  EXPECT_EQ(bytes(), fileBytes(9, {rewritten, mine, other}));

  Bytes otherName = meta.data, longer = tagBytes({{kData, 0, meta.data + Bytes{5}}});
  otherName[5] = 'X';
  for (const Bytes& foreign :
       {tagBytes({{kData, 0, otherName}}), longer, tagBytes({{kVideo, 0, meta.data}})}) {
    host.put(kFile, fileBytes(9, {meta, mine, mine}));
    Stream stream = openRecord();
    host.overwrite(kFile, kFirstTag, foreign);
    const Bytes before = bytes();
    stage(stream, {mine});
    EXPECT_TRUE(stream.flush());
    EXPECT_EQ(bytes(), before + tagBytes({mine}));
  }
}

// After its file is gone, or another one has taken its place, a handle starts anew.
TEST_F(RecordPathTest, ontoAnotherFileAtTheSamePath) {
  for (const FlvBuilder& other : {FlvBuilder(), FlvBuilder().constantRate(400'000, 700)}) {
    host.remove(kFile);
    Stream stream = openRecord();
    stage(stream,
          {{kData, 0, durationMetadata(0)}, {kAudio, 0, {0x2F}}, {kAudio, 9000, Bytes(600'000, 0x2F)}});
    EXPECT_TRUE(stream.flush());
    EXPECT_EQ(tagsOf(stream).size(), 2u);
    host.remove(kFile);
    std::vector<Message> tags = messagesOf(other);
    if (!tags.empty()) host.put(kFile, other.bytes());
    for (const u32 time : {0u, 40u}) tags.push_back({kVideo, other.lastTime() + time, {0x12, 1, 2}});
    stage(stream, {tags.end() - 2, tags.end()});
    EXPECT_TRUE(stream.flush());
    EXPECT_EQ(stream.type(), tags.size() == 2 ? 1u : 5u);
    EXPECT_EQ(stream.metadata(), Bytes());
    EXPECT_EQ(tagsOf(stream), tags);
  }
}

// What stays with streams that were opened and do nothing.
TEST_F(RecordPathTest, idleStreamsHoldNoBlock) {
  constexpr u32 kStreams = 20;  // More than find a block that another one gave back.
  flv::FLVAdaptor linked(&host);
  for (const auto mode : {Stream::record, Stream::play}) {
    const HeapWatch heap;
    std::vector<std::unique_ptr<Stream>> idle;
    while (idle.size() < kStreams) idle.push_back(std::make_unique<Stream>(linked, kName, mode));
    EXPECT_LT(heap->live, kStreams * (mode == Stream::record ? 70'000 : 10'000) + 600'000);
    EXPECT_EQ(host.openDescriptors(), mode == Stream::record ? kStreams : 0u);
  }
}

// Paths that come out empty would all lead to one file.
TEST_F(RecordPathTest, ontoNoPath) {
  for (const char* const path : {"\xFF\xFE", "c:\\films\\\xF0\x9F\x8E\xAC", ""}) {
    host.log.clear();
    EXPECT_FALSE(Stream(adaptor(), path, Stream::record)) << path;
    EXPECT_TRUE(host.calls.empty());
    ASSERT_EQ(host.log.size(), 1u);
    EXPECT_EQ(host.log[0].text, "Can't record to a path that is empty or no valid text : .flv");
  }
  // Nor does one that could be read there.
  const Bytes film = FlvBuilder().tag(kVideo, 1, 20).bytes();
  host.put(".flv", film);
  Stream player(adaptor(), "\xFF");
  EXPECT_FALSE(player.stage(kVideo, 2, {0x12}));
  EXPECT_FALSE(player.flush());
  EXPECT_EQ(host.file(".flv").image.bytes(), film);
}

TEST_F(RecordPathTest, bufferGrowsByDoubling) {
  Stream stream = openRecord();
  const u32 empty = adaptor().getMemoryOverhead(stream.handle) - 32768;
  for (const auto& [size, capacity] :
       {std::pair(32768u - 15, 32768u), {0u, 65536u}, {100'000u, 262'144u}, {20u, 262'144u}}) {
    stage(stream, {{kVideo, 10, payload(kVideo, size, size)}});
    EXPECT_EQ(adaptor().getMemoryOverhead(stream.handle) - empty, capacity);
  }
  EXPECT_TRUE(stream.flush());
  stream.stage(kVideo, 20, {0x12});
  EXPECT_EQ(adaptor().getMemoryOverhead(stream.handle) - empty - sizeof(flv::SegmentRange), 32768u);
}

TEST_F(RecordPathTest, ontoAFileThatIsThere) {
  host.put(kFile, Bytes{'F', 'L', 'V', 2, 0, 0, 0, 0, 9, 0, 0, 0, 0});  // another version
  EXPECT_FALSE(openRecord());
  // A stream for playing records too, behind the last byte; the bounds say where the whole tags end.
  FlvBuilder film = FlvBuilder().tag(kVideo, 100, 20).tag(kVideo, 200, 20);
  const i64 end = film.size();
  Stream player = open(film.tag(kVideo, 300, 20).raw({9, 0, 0}));
  stage(player, {{kAudio, 5, {0x2F}}});
  const auto bounds = player.flush();
  ASSERT_TRUE(bounds);
  EXPECT_EQ(bounds->startPosition, end);
  EXPECT_EQ(bytes(), film.bytes() + tagBytes({{kAudio, 5, {0x2F}}}));
  EXPECT_EQ(player.type(), 5u);
  // Its opening may fail later, and isn't tried again.
  host.put(kFile, Bytes(20));
  EXPECT_FALSE(player.stage(kAudio, 6, {0x2F}));
  EXPECT_TRUE(player.stage(kAudio, 7, {0x2F}));
  EXPECT_FALSE(player.flush());
  EXPECT_EQ(bytes(), Bytes(20));
}

}  // namespace
}  // namespace orv::test
