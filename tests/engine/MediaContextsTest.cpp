// The records at a file's head: which tags they are, what the host gets of them, and their serialized form.

#include "RecordTest.h"
#include "modules/streams/flv/MediaContextStore.h"
#include "util/KTThrowable.h"

namespace orv::test {
namespace {

using namespace amf;
using flv::MediaContext;
using flv::MediaContextStore;

// What a holder is called with.
struct Context {
  u16 type;
  Bytes data;
  u32 time;
  i64 position;
  u32 trackID;
  u32 contextType;
  bool operator==(const Context&) const = default;
};

class Contexts final : public IContextHolder, public IAllContextHolder {
 public:
  std::vector<Context> each;
  std::vector<Bytes> all;

  void onContext(unsigned short type, const void* data, u32 size, u32 time, i64 position, u32 trackID,
                 u32 contextType) override {
    const auto* const bytes = static_cast<const u8*>(data);
    each.push_back({type, Bytes(bytes, bytes + size), time, position, trackID, contextType});
  }
  void onAllContexts(const void* data, u32 size) override {
    const auto* const bytes = static_cast<const u8*>(data);
    all.emplace_back(bytes, bytes + size);
  }
};

Context contextOf(u8 type, u32 trackID, const Bytes& data) {
  return {type, data, 0, -1, trackID, 1};
}

// The serialized form, written down by hand.
Bytes blobOf(const std::vector<Context>& contexts) {
  Bytes out{3};
  for (const Context& context : contexts) {
    const auto size = static_cast<u8>(context.data.size());
    const Bytes memory = Bytes{32, 0, 0, 0, size} + context.data;
    Bytes position{34, 0, 0, 0, 0, 0, 0, 0, 0};
    for (u32 i = 0; i < 8; ++i) position[8 - i] = static_cast<u8>(context.position >> 8 * i);
    out = out + key("") +
          object({{"messageType", number(context.type)},
                  {"time", number(context.time)},
                  {"buffer", memory},
                  {"position", position},
                  {"trackID", number(context.trackID)},
                  {"contextType", number(context.contextType)}});
  }
  return out + Bytes{0, 0, 9};
}

class MediaContextsTest : public RecordTest {
 protected:
  static std::vector<Context> ask(Stream& stream, ContextType_t type, i64 position, bool* result) {
    Contexts contexts;
    *result = stream.adaptor.getMediaContexts(stream.handle, type, position, &contexts);
    return contexts.each;
  }
};

TEST_F(MediaContextsTest, headRecords) {
  const Bytes meta = onMetaData(object({{"duration", number(1)}})), second = onMetaData(number(2));
  const Bytes meta3 = Bytes{0} + meta, xmp = onMetaData(text("x"), "onXMPData");
  const Bytes header = onMetaData({5}, "|AdditionalHeader"), control{0, 0x21, 0, 0, 0, 0};
  const Bytes cut(meta.begin(), meta.end() - 5), bad = onMetaData({35}), cue = onMetaData({5}, "onCuePoint");
  const Message media{kVideo, 0, payload(kVideo, 30, 1)}, end{kVideo, 40, payload(kVideo, 30, 2)};
  const auto behind = [&](u32 count) {
    std::vector<Message> tags(count, media);
    tags.push_back({kData, 0, meta});
    return tags;
  };
  const Context contextMeta = contextOf(kData, 2, meta);
  const struct {
    const char* name;
    std::vector<Message> tags;  // In front of three media tags.
    std::vector<Context> contexts;
    Bytes metadata;
    std::size_t loaded;  // Of `tags`.
    std::size_t warnings = 0;
  } kFiles[] = {
      {"none", {}, {}, {}, 0},
      {"media at time 0", {media, media}, {}, {}, 2},
      {"metadata", {{kData, 0, meta}}, {contextMeta}, meta, 0},
      {"AMF3 metadata", {{kData3, 0, meta3}}, {contextOf(kData3, 2, meta3)}, meta3, 0},
      {"filtered metadata", {{kData | 0x20, 0, meta}}, {contextMeta}, meta, 0},
      {"two: the first is the metadata, the last the context",
       {{kData, 0, meta}, {kData, 0, second}},
       {contextOf(kData, 2, second)},
       meta,
       0},
      {"in the order of the kinds",
       {{kData, 0, xmp}, {kData, 0, header}, {kData, 0, meta}, {kData, 0, header}},
       {contextOf(kData, 4, xmp), contextOf(kData, 3, header), contextOf(4, 5, control), contextMeta},
       meta,
       0},
      {"metadata and header",
       {{kData, 0, meta}, {kData, 0, header}},
       {contextMeta, contextOf(kData, 3, header), contextOf(4, 5, control)},
       meta,
       0},
      {"behind media and another name", {media, {kData, 0, cue}, {kData, 0, meta}}, {contextMeta}, meta, 2},
      {"at time 5", {{kData, 5, meta}}, {}, {}, 1},
      {"behind time 5", {{kData, 5, cue}, {kData, 0, meta}}, {}, {}, 2},
      {"the 20th tag", behind(19), {contextMeta}, meta, 19},
      {"the 21st tag", behind(20), {}, {}, 21},
      {"cut short: its name counts", {{kData, 0, cut}}, {contextOf(kData, 2, cut)}, cut, 0},
      {"a marker that is none", {{kData, 0, bad}, {kData, 0, meta}}, {contextMeta}, meta, 1, 1},
      {"names with another case, none, a number",
       {{kData, 0, onMetaData({5}, "OnMetaData")}, {kData, 0, {}}, {kData, 0, number(1)}},
       {},
       {},
       3},
  };
  for (const auto& file : kFiles) {
    FlvBuilder film;
    for (const Message& tag : file.tags) film.tag(static_cast<u8>(tag.type), tag.time, tag.data);
    for (int i = 0; i < 3; ++i) film.tag(kVideo, end.time, end.data);
    host.log.clear();
    Stream stream = EngineTest::open(film);
    ASSERT_TRUE(stream) << file.name;
    EXPECT_EQ(stream.metadata(), file.metadata) << file.name;
    bool result = false;
    for (const i64 position : {i64{0}, film.size()}) {
      EXPECT_EQ(ask(stream, ContextTypeBefore, position, &result), file.contexts) << file.name;
      EXPECT_EQ(result, !file.contexts.empty()) << file.name;
    }
    EXPECT_TRUE(ask(stream, ContextTypeAfter, -9, &result).empty() && !result) << file.name;
    EXPECT_TRUE(ask(stream, ContextTypeBefore, -1, &result).empty() && !result) << file.name;
    EXPECT_EQ(unpack(stream.load({0, film.size(), 0, 0})).size(), file.loaded + 3) << file.name;
    EXPECT_EQ(host.log.size(), file.warnings) << file.name;
    for (const LogLine& line : host.log)
      EXPECT_EQ(line.text, "File contains bad meta data : c:\\media\\film.flv");
  }
}

TEST_F(MediaContextsTest, serializedForm) {
  const Bytes meta = onMetaData(object({{"a", number(1)}})), header = onMetaData({5}, "|AdditionalHeader"),
              control{0, 0x21, 0, 0, 0, 0};
  Contexts none, contexts;
  {
    Stream stream = EngineTest::open(FlvBuilder().tag(kVideo, 5, 20));
    EXPECT_FALSE(stream.adaptor.getAllMediaContexts(stream.handle, &none));
    EXPECT_TRUE(none.all.empty());
  }
  const FlvBuilder film = FlvBuilder()
                              .tag(kData, 0, meta)
                              .tag(kData, 0, header)
                              .tag(kData, 0, meta)
                              .tag(kVideo, 5, 20)
                              .tag(kVideo, 6, 20);
  Stream stream = EngineTest::open(film);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(stream.adaptor.getAllMediaContexts(stream.handle, &contexts));
  EXPECT_FALSE(stream.adaptor.getAllMediaContexts(stream.handle, nullptr));
  EXPECT_TRUE(stream.adaptor.getMediaContexts(stream.handle, ContextTypeBefore, 0, nullptr));
  const Bytes blob = blobOf({contextOf(kData, 2, meta), contextOf(kData, 2, meta),
                             contextOf(kData, 3, header), contextOf(4, 5, control)});
  EXPECT_EQ(contexts.all, (std::vector<Bytes>{blob, blob}));
  const Bytes one = blobOf({contextOf(kData, 2, meta)});
  EXPECT_EQ(one.size(), 1 + 2 + 1 + (2 + 11 + 9) + (2 + 4 + 9) + (2 + 6 + 5 + meta.size()) + (2 + 8 + 9) +
                            (2 + 7 + 9) + (2 + 11 + 9) + 3 + 3);

  // And back.
  MediaContextStore store;
  const u32 empty = store.byteSize();
  EXPECT_EQ(empty, sizeof(MediaContextStore));
  store.deserialize(blob.data(), static_cast<u32>(blob.size()));
  EXPECT_EQ(store.byteSize(), empty + 3 * sizeof(flv::MediaContextTrack) + 4 * sizeof(MediaContext) +
                                  2 * meta.size() + header.size() + 6);
  KTBuffer again;
  EXPECT_TRUE(store.serialize(again));
  EXPECT_EQ(Bytes(again.data, again.data + again.size), blob);
  store.deserialize(nullptr, 0);  // changes nothing
  EXPECT_TRUE(store.serialize(again));
  store.clear();
  EXPECT_FALSE(store.serialize(again));
}

// Blobs that nobody serialized: what can be read is taken.
TEST_F(MediaContextsTest, deserialize) {
  const Context context{9, {1, 2, 3}, 0xFFFFFFFF, 77, 6, 2};
  const Bytes blob = blobOf({context});
  const Members strange{{"TRACKID", number(6)},
                        {"other", text("x")},
                        {"buffer", text("no block")},
                        {"messageType", number(0x112)}};
  const struct {
    const char* name;
    Bytes blob;
    std::vector<Context> contexts;  // As serialize tells them.
  } kBlobs[] = {
      {"whole", blob, {context}},
      {"other keys and types",
       Bytes{3} + key("") + object(strange) + Bytes{0, 0, 9},
       {{0x12, {}, 0, -1, 6, 1}}},
      {"named, not only objects",
       Bytes{3} + key("a") + number(4) + key("b") + object({}) + Bytes{0, 0, 9},
       {{0, {}, 0, -1, 0, 1}}},
      {"cut in a second",
       Bytes(blob.begin(), blob.end() - 3) + Bytes{0, 0, 3, 0, 9},
       {context, {0, {}, 0, -1, 0, 1}}},
      {"no container", number(1), {}},
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
    KTBuffer out;
    ASSERT_EQ(store.serialize(out), !given.contexts.empty()) << given.name;
    if (given.contexts.empty()) continue;
    EXPECT_EQ(Bytes(out.data, out.data + out.size), blobOf(given.contexts)) << given.name;
  }
}

// References to one record count as records of their own, with bytes that the blob doesn't hold.
TEST_F(MediaContextsTest, hugeByReferences) {
  Bytes blob = blobOf({{9, Bytes(3000), 0, 77, 6, 2}});
  for (u32 i = 0; i < 1000; ++i) blob.insert(blob.end() - 3, {0, 0, 7, 0, 1});
  MediaContextStore store;
  store.deserialize(blob.data(), static_cast<u32>(blob.size()));
  EXPECT_GT(store.byteSize(), 2 * 3000u);
  EXPECT_LT(store.byteSize(), 2 * blob.size());
}

TEST_F(MediaContextsTest, lookUp) {
  // Positions and types of one track, in the order of their arrival.
  const struct {
    std::vector<std::pair<i64, u32>> records;
    u32 type;
    i64 position;
    int found;  // -1: none
  } kLookUps[] = {
      {{}, 1, 0, -1},
      {{{-1, 1}}, 1, 0, 0},
      {{{-1, 1}}, 1, -1, -1},
      {{{0, 1}, {10, 1}, {20, 1}}, 1, 20, 1},
      {{{0, 1}, {10, 1}, {20, 1}}, 1, 21, 2},
      {{{0, 1}, {10, 2}}, 1, 11, -1},  // stops at the first record that lies there
      {{{0, 2}, {10, 2}, {20, 2}}, 2, 10, 2},
      {{{0, 2}, {10, 1}}, 2, 5, -1},
      {{{0, 2}}, 2, 0, -1},
      {{{0, 3}}, 3, 1, -1},
      {{{i64{1} << 40, 1}}, 1, (i64{1} << 40) + 1, 0},
  };
  for (const auto& lookUp : kLookUps) {
    MediaContextStore store;
    for (u32 i = 0; i < lookUp.records.size(); ++i) {
      MediaContext record;
      record.position = lookUp.records[i].first;
      record.contextType = static_cast<ContextType_t>(lookUp.records[i].second);
      record.time = i;
      store.add(record);
    }
    int found = -1;
    const bool any =
        store.forEach(static_cast<ContextType_t>(lookUp.type), lookUp.position,
                      [&](const MediaContext& record) { found = static_cast<int>(record.time); });
    EXPECT_EQ(found, lookUp.found) << lookUp.position;
    EXPECT_EQ(any, lookUp.found >= 0);
  }
}

}  // namespace
}  // namespace orv::test
