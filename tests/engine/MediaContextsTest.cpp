// The records at a file's head: which tags they are, what the host gets of them, and their serialized form.

#include "RecordTest.h"
#include "modules/streams/flv/MediaContextStore.h"
#include "util/KTThrowable.h"

namespace orv::test {
namespace {

using flv::MediaContext;
using flv::MediaContextStore;

// What a holder is called with.
struct Context {
  u16 type = 0;
  Bytes data{};
  u32 trackID = 0;
  u32 time = 0;
  i64 position = -1;
  u32 contextType = 1;
  bool operator==(const Context&) const = default;
};

class Contexts final : public IContextHolder, public IAllContextHolder {
 public:
  std::vector<Context> each;
  std::vector<Bytes> all;

  void onContext(u16 type, const void* data, u32 size, u32 time, i64 position, u32 trackID,
                 u32 contextType) override {
    each.push_back({type, bytesOf(data, size), trackID, time, position, contextType});
  }
  void onAllContexts(const void* data, u32 size) override { all.push_back(bytesOf(data, size)); }

  static Bytes bytesOf(const void* data, u32 size) {
    const auto* const bytes = static_cast<const u8*>(data);
    return Bytes(bytes, bytes + size);
  }
};

const Bytes kControl{0, 0x21, 0, 0, 0, 0};  // Comes with each additional header.

// The serialized form, written down by hand.
Bytes blobOf(const std::vector<Context>& contexts) {
  const auto number = [](auto value) { return "00 =" + std::to_string(value); };
  std::string text = "03";
  for (const Context& context : contexts) {
    Bytes size(4), position(8);
    flv::writeU32(size.data(), static_cast<u32>(context.data.size()));
    flv::writeU32(&position[0], static_cast<u32>(context.position >> 32));
    flv::writeU32(&position[4], static_cast<u32>(context.position));
    text += " 0000 03 <messageType> " + number(context.type) + " <time> " + number(context.time) +
            " <buffer> 20" + hexOf(size) + hexOf(context.data) + " <position> 22" + hexOf(position) +
            " <trackID> " + number(context.trackID) + " <contextType> " + number(context.contextType) +
            " 000009";
  }
  return bytesOf(text + " 000009");
}

// None if the store is empty.
Bytes serialized(const MediaContextStore& store) {
  KTBuffer out;
  return store.serialize(out) ? Bytes(out.data, out.data + out.size) : Bytes{};
}

using MediaContextsTest = RecordTest;

TEST_F(MediaContextsTest, headRecords) {
  const Bytes meta = durationMetadata(1), second = onMetaData("00 =2"), meta3 = Bytes{0} + meta;
  const Bytes xmp = bytesOf("02 <onXMPData> 02 <x>"), header = bytesOf("02 <|AdditionalHeader> 05");
  const Bytes cut(meta.begin(), meta.end() - 5), bad = onMetaData("23"), cue = bytesOf("02 <onCuePoint> 05");
  const Bytes inCapitals = bytesOf("02 <OnMetaData> 05");
  const Message media{kVideo, 0, payload(kVideo, 30, 1)};
  const auto behind = [&](u32 count) {
    std::vector<Message> tags(count, media);
    tags.push_back({kData, 0, meta});
    return tags;
  };
  const Context contextMeta{kData, meta, 2};
  const struct {
    const char* name;
    std::vector<Message> tags;  // In front of three media tags.
    std::vector<Context> contexts;
    Bytes metadata;
    std::size_t loaded;  // Of `tags`.
    std::size_t warnings = 0;
  } kFiles[] = {
      {"media at time 0", {media, media}, {}, {}, 2},
      {"AMF3 metadata", {{kData3, 0, meta3}}, {{kData3, meta3, 2}}, meta3, 0},
      {"filtered metadata", {{kData | 0x20, 0, meta}}, {contextMeta}, meta, 0},
      // The first is the metadata, the last the context.
      {"two", {{kData, 0, meta}, {kData, 0, second}}, {{kData, second, 2}}, meta, 0},
      {"in the order of the kinds",
       {{kData, 0, xmp}, {kData, 0, header}, {kData, 0, meta}, {kData, 0, header}},
       {{kData, xmp, 4}, {kData, header, 3}, {4, kControl, 5}, contextMeta},
       meta,
       0},
      {"behind media and another name", {media, {kData, 0, cue}, {kData, 0, meta}}, {contextMeta}, meta, 2},
      {"at and behind time 5", {{kData, 5, meta}, {kData, 0, meta}}, {}, {}, 2},
      {"the 20th tag", behind(19), {contextMeta}, meta, 19},
      {"the 21st tag", behind(20), {}, {}, 21},
      {"cut short: its name counts", {{kData, 0, cut}}, {{kData, cut, 2}}, cut, 0},
      {"a marker that is none", {{kData, 0, bad}, {kData, 0, meta}}, {contextMeta}, meta, 1, 1},
      {"other names", {{kData, 0, inCapitals}, {kData, 0, {}}, {kData, 0, bytesOf("00 =1")}}, {}, {}, 3},
  };
  for (const auto& file : kFiles) {
    std::vector<Message> tags = file.tags;
    tags.insert(tags.end(), 3, {kVideo, 40, payload(kVideo, 30, 2)});
    host.log.clear();
    Stream stream = open(FileImage(fileBytes(5, tags)));
    ASSERT_TRUE(stream) << file.name;
    EXPECT_EQ(stream.metadata(), file.metadata) << file.name;
    const auto expectContexts = [&](ContextType_t type, i64 position, const std::vector<Context>& expected) {
      Contexts contexts;
      EXPECT_EQ(adaptor().getMediaContexts(stream.handle, type, position, &contexts), !expected.empty());
      EXPECT_EQ(contexts.each, expected) << file.name << position;
    };
    expectContexts(ContextTypeBefore, 0, file.contexts);
    expectContexts(ContextTypeBefore, stream.size(), file.contexts);
    expectContexts(ContextTypeBefore, -1, {});
    expectContexts(ContextTypeAfter, -9, {});
    EXPECT_EQ(tagsOf(stream).size(), file.loaded + 3) << file.name;
    EXPECT_EQ(host.log.size(), file.warnings) << file.name;
    for (const LogLine& line : host.log)
      EXPECT_EQ(line.text, "File contains bad meta data : c:\\media\\film.flv");
  }
}

TEST_F(MediaContextsTest, serializedForm) {
  const Bytes meta = onMetaData("03 <a> 00 =1 000009"), header = bytesOf("02 <|AdditionalHeader> 05");
  Contexts contexts;
  {
    Stream stream = open(FlvBuilder().tag(kVideo, 5, 20));
    EXPECT_FALSE(adaptor().getAllMediaContexts(stream.handle, &contexts));
    EXPECT_TRUE(contexts.all.empty());
  }
  Stream stream =
      open(FlvBuilder().tag(kData, 0, meta).tag(kData, 0, header).tag(kData, 0, meta).interleaved(3));
  EXPECT_TRUE(adaptor().getAllMediaContexts(stream.handle, &contexts));
  EXPECT_FALSE(adaptor().getAllMediaContexts(stream.handle, nullptr));
  EXPECT_TRUE(adaptor().getMediaContexts(stream.handle, ContextTypeBefore, 0, nullptr));
  // A file that has grown is looked at anew.
  host.append(kFile, tagBytes(kVideo, 100, {0x12}));
  EXPECT_GT(stream.size(), 0);
  EXPECT_TRUE(adaptor().getAllMediaContexts(stream.handle, &contexts));
  const Bytes blob = blobOf({{kData, meta, 2}, {kData, meta, 2}, {kData, header, 3}, {4, kControl, 5}});
  EXPECT_EQ(contexts.all, (std::vector<Bytes>{blob, blob}));

  // And back.
  MediaContextStore store;
  store.deserialize(blob.data(), static_cast<u32>(blob.size()));
  EXPECT_EQ(store.byteSize(), sizeof store + 3 * sizeof(flv::MediaContextTrack) + 4 * sizeof(MediaContext) +
                                  2 * meta.size() + header.size() + kControl.size());
  store.deserialize(nullptr, 0);  // Changes nothing.
  EXPECT_EQ(serialized(store), blob);
  store.clear();
  EXPECT_EQ(serialized(store), Bytes());
}

// Blobs that nobody serialized: what can be read is taken.
TEST_F(MediaContextsTest, deserialize) {
  const Context context{9, {1, 2, 3}, 6, 0xFFFFFFFF, 77, 2};
  const Bytes blob = blobOf({context});
  const struct {
    const char* name;
    Bytes blob;
    std::vector<Context> contexts;  // As serialize tells them.
  } kBlobs[] = {
      {"whole", blob, {context}},
      {"other keys and types",
       bytesOf("03 0000 03 <TRACKID> 00 =6 <other> 02 <x> <buffer> 02 <no block> <messageType> 00 =274 "
               "000009 000009"),
       {{0x12, {}, 6}}},
      {"not only objects", bytesOf("03 <a> 00 =4 <b> 03 000009 000009"), {{}}},
      {"cut in a second", Bytes(blob.begin(), blob.end() - 3) + Bytes{0, 0, 3, 0, 9}, {context, {}}},
      {"no container", bytesOf("00 =1"), {}},
      {"no value", {35}, {}},
  };
  for (const auto& given : kBlobs) {
    MediaContextStore store;
    store.deserialize(blob.data(), static_cast<u32>(blob.size()));
    try {
      store.deserialize(given.blob.data(), static_cast<u32>(given.blob.size()));
    } catch (const KTBreakConnection&) {
      EXPECT_STREQ(given.name, "no value");
    }
    EXPECT_EQ(serialized(store), given.contexts.empty() ? Bytes{} : blobOf(given.contexts)) << given.name;
  }
}

// References to one record count as records of their own, with bytes that the blob doesn't hold.
TEST_F(MediaContextsTest, hugeByReferences) {
  Bytes blob = blobOf({{9, Bytes(3000), 6}});
  for (u32 i = 0; i < 1000; ++i) blob.insert(blob.end() - 3, {0, 0, 7, 0, 1});
  MediaContextStore store;
  store.deserialize(blob.data(), static_cast<u32>(blob.size()));
  EXPECT_GT(store.byteSize(), 2 * 3000u);
  EXPECT_LT(store.byteSize(), 2 * blob.size());
}

// Positions and types of one track, in the order of their arrival.
TEST_F(MediaContextsTest, lookUp) {
  constexpr i64 kFar = i64{1} << 40;
  constexpr auto kBefore = ContextTypeBefore, kAfter = ContextTypeAfter, kOther = ContextType_t{3};
  const struct {
    std::vector<std::pair<i64, ContextType_t>> records;
    ContextType_t type;
    i64 position;
    int found;  // -1: none
  } kLookUps[] = {
      {{}, kBefore, 0, -1},
      {{{0, kBefore}, {10, kBefore}, {20, kBefore}}, kBefore, 20, 1},
      {{{0, kBefore}, {10, kAfter}}, kBefore, 11, -1},  // stops at the first record that lies there
      {{{0, kAfter}, {10, kAfter}, {20, kAfter}}, kAfter, 10, 2},
      {{{0, kAfter}, {10, kBefore}}, kAfter, 5, -1},
      {{{0, kOther}}, kOther, 1, -1},
      {{{kFar, kBefore}}, kBefore, kFar + 1, 0},
  };
  for (const auto& [records, type, position, expected] : kLookUps) {
    MediaContextStore store;
    for (u32 i = 0; i < records.size(); ++i)
      store.add({.contextType = records[i].second, .time = i, .buffer = {}, .position = records[i].first});
    int found = -1;
    const auto take = [&](const MediaContext& record) { found = static_cast<int>(record.time); };
    EXPECT_EQ(store.forEach(type, position, take), expected >= 0) << position;
    EXPECT_EQ(found, expected) << position;
  }
}

}  // namespace
}  // namespace orv::test
