// Nothing that a flush has written is lost by what goes wrong later: each host call of a session fails or
// falls short, and the file is cut at each byte of each write.

#include <set>

#include "RecordTest.h"

namespace orv::test {
namespace {

using namespace amf;

constexpr u32 kFlushes = 3, kTagsAFlush = 6;

// The tags of a session: the metadata, then media, each with bytes of its own.
Message tagOf(u32 i) {
  const Members members{{"duration", number(0)}, {"canSeekToEnd", boolean(false)}};
  if (i == 0) return {kData, 0, onMetaData(array(members, 2))};
  const u8 type = i % 3 == 0 ? kAudio : kVideo;
  return {type, 100 * i, payload(type, 5 + 7 * (i % 4), i)};
}

// What a player must get from a file: all tags but those that a tear hides.
struct Playback {
  bool opens = false;
  std::vector<Message> tags{};
  Bytes metadata{};

  bool operator==(const Playback&) const = default;
};

// Of a file's bytes: how many tags of the session stand there in a row, and whether more follows.
struct Shape {
  explicit Shape(const Bytes& file) {
    while (at < file.size()) {
      const Message tag = tagOf(whole);
      const Bytes bytes = tagBytes(static_cast<u8>(tag.type), tag.time, tag.data);
      if (file.size() - at < bytes.size()) break;
      if (whole > 0 &&
          !std::equal(bytes.begin(), bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(at)))
        break;
      at += bytes.size();
      ++whole;
    }
    torn = at != file.size();
  }
  std::size_t at = kFirstTag;
  u32 whole = 0;
  bool torn = false;
};

Playback expected(const Bytes& file) {
  if (file.size() < kFirstTag) return {};
  const Shape shape(file);
  if (shape.whole == 0) return {.opens = !shape.torn};
  Playback playback{.opens = true};
  const u32 found = shape.whole - (shape.torn ? 1 : 0);
  for (u32 i = 1; i < found; ++i) playback.tags.push_back(tagOf(i));
  if (found > 0)
    playback.metadata = Bytes(&file[kFirstTag + 11], &file[kFirstTag + 11] + tagOf(0).data.size());
  return playback;
}

class RecordFaultsTest : public RecordTest {
 protected:
  RecordFaultsTest() {
    host.beforeCall = nullptr;
    host.protectsFiles = true;
    for (const bool packed : {true, false}) {
      host.settings["EnableAggMsgs"] = packed ? "true" : "false";
      players_[packed] = module().create(host);
    }
  }
  void TearDown() override {
    for (auto& player : players_) player.reset();
    RecordTest::TearDown();
  }

  Playback play(bool packed) {
    Stream stream(*players_[packed], kName);
    if (!stream) return {};
    Playback playback{.opens = true};
    for (const SegmentBounds& bounds : stream.walk())
      for (const Message& tag : unpack(stream.load(bounds))) playback.tags.push_back(tag);
    playback.metadata = stream.metadata();
    return playback;
  }

  // `sure`: how many tags the host was promised.
  void expectNothingLost(u32 sure, const std::string& where) {
    host.clearCalls();
    const Bytes file = host.exists(kFile) ? bytes() : Bytes{};
    const Playback wanted = expected(file);
    for (const bool packed : {true, false}) ASSERT_EQ(play(packed), wanted) << where << ", packed " << packed;
    const Shape shape(file);
    ASSERT_GE(file.size() < kFirstTag ? 0 : shape.whole, sure) << where;
    ASSERT_EQ(host.openDescriptors(), 0u) << where;
  }

 private:
  std::unique_ptr<IQVStreamAdaptor> players_[2];
};

// A write under way, and what the host had been promised before it.
struct LoggedWrite {
  Bytes before;
  i64 position;
  u32 size;
  u32 sure;
};

TEST_F(RecordFaultsTest, crashAtEachByte) {
  std::vector<LoggedWrite> log;
  u32 sure = 0;
  host.beforeCall = [&](const Call& call) {
    if (call.op == Op::write) log.push_back({bytes(), call.position, call.size, sure});
  };
  {
    Stream stream = openRecord();
    for (u32 i = 0; i < kFlushes * kTagsAFlush; ++i) {
      const auto [type, time, data] = tagOf(i);
      ASSERT_TRUE(stream.stage(type, time, data));
      if ((i + 1) % kTagsAFlush != 0) continue;
      ASSERT_TRUE(stream.flush());
      sure = i + 1;
    }
  }
  host.beforeCall = nullptr;
  ASSERT_EQ(log.size(), 5 + kFlushes * 3);
  log.push_back({bytes(), 0, 0, sure});
  for (std::size_t i = 0; i + 1 < log.size(); ++i) {
    const LoggedWrite& write = log[i];
    FileImage image = write.before;
    for (u32 done = 0; done <= write.size; ++done) {
      if (done > 0)
        image.write(write.position + done - 1,
                    &log[i + 1].before[static_cast<std::size_t>(write.position) + done - 1], 1);
      host.put(kFile, image);
      const std::string where = "write " + std::to_string(i) + ", byte " + std::to_string(done);
      ASSERT_NO_FATAL_FAILURE(expectNothingLost(write.sure, where));
      if (done % 5 != 0) continue;
      // The next recording goes on behind the last byte, and tears nothing more.
      const Shape shape(image.bytes());
      Stream again = openRecord();
      if (!again) continue;
      for (u32 tag = 1; tag < 4; ++tag) again.stage(kVideo, 5000, payload(kVideo, 20, tag));
      ASSERT_TRUE(again.flush());
      const Bytes file = bytes();
      ASSERT_EQ(file.size(), std::max<i64>(image.size(), 13) + 3 * 35) << where;
      const auto behindHead = static_cast<std::ptrdiff_t>(kFirstTag + tagOf(0).data.size() + 11);
      if (image.size() > behindHead) {
        const Bytes old = image.bytes();
        ASSERT_TRUE(std::equal(old.begin() + behindHead, old.end(), file.begin() + behindHead)) << where;
      }
      if (shape.torn || shape.whole == 0) continue;
      ASSERT_EQ(play(false).tags.size(), shape.whole - 1 + 3) << where;
    }
  }
}

// One session under one fault. A careful host stops at the first write that its own service saw go wrong.
struct Outcome {
  u32 sure = 0;             // Tags of flushes that answered true, before any write fell short.
  std::set<u32> written{};  // All tags of flushes that answered true and wrote all they had.
  bool shortWrite = false;
};

class FaultySession {
 public:
  FaultySession(MemoryHost& host, Stream& stream, bool careful)
      : host_(host), stream_(stream), careful_(careful) {}

  Outcome run() {
    for (u32 flush = 0; flush < kFlushes; ++flush) {
      for (u32 i = 0; i < kTagsAFlush; ++i) {
        const auto [type, time, data] = tagOf(next_);
        if (!stream_.stage(type, time, data)) return outcome_;
        staged_.insert(next_++);
      }
      flushAll();
      if (careful_ && outcome_.shortWrite) return outcome_;
    }
    if (!staged_.empty()) flushAll();
    return outcome_;
  }

 private:
  void flushAll() {
    host_.clearCalls();
    const bool flushed = stream_.flush().has_value();
    bool tagsShort = false;
    for (const Call& call : host_.calls) {
      if (call.op != Op::write || call.result == static_cast<int>(call.size)) continue;
      outcome_.shortWrite = true;
      tagsShort |= call.size > 1 && call.position > 24;
      tagsShort |= call.position == kFirstTag;
    }
    if (!flushed) return;
    if (!tagsShort) outcome_.written.insert(staged_.begin(), staged_.end());
    if (!outcome_.shortWrite) outcome_.sure = next_;
    staged_.clear();
  }

  MemoryHost& host_;
  Stream& stream_;
  const bool careful_;
  Outcome outcome_;
  u32 next_ = 0;
  std::set<u32> staged_;
};

TEST_F(RecordFaultsTest, eachHostCallGoesWrong) {
  const struct {
    const char* name;
    Fault fault;
    bool stays;
    bool careful;
  } kSweeps[] = {
      {"fails", Fault::fails, false, true},
      {"falls short", Fault::fallsShort, false, true},
      {"fails for good", Fault::fails, true, true},
      {"fails, and the host goes on", Fault::fails, false, false},
      {"falls short, and the host goes on", Fault::fallsShort, false, false},
      {"falls short for good, and the host goes on", Fault::fallsShort, true, false},
  };
  for (const auto& sweep : kSweeps) {
    u32 n = 1;
    for (bool fired = true; fired; ++n) {
      host.remove(kFile);
      mirror->files.clear();
      host.failCall(n, sweep.fault, {}, sweep.stays);
      Outcome outcome;
      {
        Stream stream = openRecord(mirror.get());
        if (stream) outcome = FaultySession(host, stream, sweep.careful).run();
      }
      fired = host.faultFired();
      host.failCall(0);
      const std::string where = std::string(sweep.name) + ", call " + std::to_string(n);
      ASSERT_EQ(host.openDescriptors(), 0u) << where;
      const Bytes file = host.exists(kFile) ? bytes() : Bytes{};
      if (sweep.careful) {
        ASSERT_NO_FATAL_FAILURE(expectNothingLost(outcome.sure, where));
      } else {
        for (const bool packed : {true, false}) play(packed);
        ASSERT_EQ(host.openDescriptors(), 0u) << where;
      }
      if (!outcome.shortWrite && host.exists(kFile) && file.size() >= kFirstTag) {
        ASSERT_EQ(mirror->files[kFile].bytes(), file) << where;
      }
      // Whole, and once.
      for (const u32 i : outcome.written) {
        const auto [type, time, data] = tagOf(i);
        const Bytes tag = tagBytes(static_cast<u8>(type), time, data);
        const auto end = i == 0 ? tag.begin() + 25 : tag.end();
        const auto found = std::search(file.begin(), file.end(), tag.begin(), end);
        ASSERT_NE(found, file.end()) << where << ", tag " << i;
        ASSERT_EQ(std::search(found + 1, file.end(), tag.begin(), end), file.end()) << where << ", tag " << i;
      }
      if (fired) continue;
      ASSERT_EQ(outcome.written.size(), kFlushes * kTagsAFlush);
    }
    EXPECT_GT(n, 50u) << sweep.name;
  }
}

}  // namespace
}  // namespace orv::test
