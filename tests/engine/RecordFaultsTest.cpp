// Nothing that a flush has written is lost by what goes wrong later: each host call of a session fails or
// falls short, and the file is cut at each byte of each write.

#include <set>

#include "RecordTest.h"

namespace orv::test {
namespace {

constexpr u32 kFlushes = 3, kTagsAFlush = 6;
constexpr u32 kMetadata = kFirstTag + flv::kTagHeaderSize;  // Where its payload stands.

// The metadata, then media, each tag with bytes of its own.
Message tagOf(u32 i) {
  if (i == 0) return {kData, 0, onMetaData("08 00000002 <duration> 00 =0 <canSeekToEnd> 01 00 000009")};
  const u8 type = i % 3 == 0 ? kAudio : kVideo;
  return {type, 100 * i, payload(type, 5 + 7 * (i % 4), i)};
}

class RecordFaultsTest : public RecordTest {
 protected:
  RecordFaultsTest() {
    host.beforeCall = nullptr;
    host.protectsFiles = true;
  }

  // A player gets each whole tag but one that a tear follows. `sure`: how many tags the host was promised.
  void expectNothingLost(const Bytes& file, u32 sure, const std::string& where) {
    host.put(kFile, file);
    u32 whole = 0;
    std::size_t end = kFirstTag;
    for (std::size_t next = end; next < file.size(); whole += next <= file.size()) {
      next += tagBytes({tagOf(whole)}).size();
      if (next <= file.size()) end = next;
    }
    const bool hasHeader = file.size() >= kFirstTag, torn = end != file.size();
    ASSERT_GE(whole, sure) << where;
    Stream player = open();
    ASSERT_EQ(bool(player), hasHeader && (whole > 0 || !torn)) << where;
    ASSERT_EQ(host.openDescriptors(), 0u) << where;
    if (!player) return;
    const u32 found = torn ? whole - 1 : whole;
    std::vector<Message> tags;
    for (u32 i = 1; i < found; ++i) tags.push_back(tagOf(i));
    ASSERT_EQ(tagsOf(player), tags) << where;
    Bytes metadata;
    if (found > 0) metadata.assign(&file[kMetadata], &file[kMetadata] + tagOf(0).data.size());
    ASSERT_EQ(player.metadata(), metadata) << where;
  }
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
    while (sure < kFlushes * kTagsAFlush) {
      for (u32 i = 0; i < kTagsAFlush; ++i) stage(stream, {tagOf(sure + i)});
      ASSERT_TRUE(stream.flush());
      sure += kTagsAFlush;
    }
  }
  host.beforeCall = nullptr;
  ASSERT_EQ(log.size(), 5 + kFlushes * 3);
  log.push_back({bytes(), 0, 0, sure});
  for (std::size_t i = 0; i + 1 < log.size(); ++i) {
    const LoggedWrite& write = log[i];
    FileImage image = write.before;
    for (u32 done = 0; done <= write.size; ++done) {
      const i64 at = write.position + done - 1;
      if (done > 0) image.write(at, &log[i + 1].before[static_cast<std::size_t>(at)], 1);
      const Bytes old = image.bytes();
      const std::string where = "write " + std::to_string(i) + ", byte " + std::to_string(done);
      ASSERT_NO_FATAL_FAILURE(expectNothingLost(old, write.sure, where));
    }
  }
}

// One session under one fault. The host sees by its own service when a write goes wrong, and may stop there.
struct Outcome {
  u32 sure = 0;                         // Tags of flushes that answered true, before any write fell short.
  std::set<u32> written{};              // All tags of flushes that answered true and wrote all they had.
  std::optional<Bytes> atShortWrite{};  // The file behind the first flush with one.
};

Outcome recordUnderFault(MemoryHost& host, Stream& stream, const char* path) {
  Outcome outcome;
  u32 next = 0;
  std::set<u32> staged;
  for (u32 flush = 0; flush < kFlushes || (flush == kFlushes && !staged.empty()); ++flush) {
    for (u32 i = 0; flush < kFlushes && i < kTagsAFlush; ++i) {
      const auto [type, time, data] = tagOf(next);
      if (!stream.stage(type, time, data)) return outcome;
      staged.insert(next++);
    }
    host.clearCalls();
    const bool flushed = stream.flush().has_value();
    bool shortWrite = outcome.atShortWrite.has_value(), shortTags = false;
    for (const Call& call : host.calls) {
      if (call.op != Op::write || call.result == static_cast<int>(call.size)) continue;
      shortWrite = true;
      shortTags |= call.position >= kFirstTag && call.position != kMetadata;
    }
    if (shortWrite && !outcome.atShortWrite) outcome.atShortWrite = host.file(path).image.bytes();
    if (!flushed) continue;
    if (!shortTags) outcome.written.insert(staged.begin(), staged.end());
    if (!shortWrite) outcome.sure = next;
    staged.clear();
  }
  return outcome;
}

TEST_F(RecordFaultsTest, eachHostCallGoesWrong) {
  for (const auto& [fault, stays] : {std::pair(Fault::fails, false),
                                     {Fault::fails, true},
                                     {Fault::fallsShort, false},
                                     {Fault::fallsShort, true}}) {
    u32 n = 1;
    for (bool fired = true; fired; ++n) {
      host.remove(kFile);
      mirror->files.clear();
      host.failCall(n, fault, {}, stays);
      Outcome outcome;
      if (Stream stream = openRecord(mirror.get())) outcome = recordUnderFault(host, stream, kFile);
      fired = host.faultFired();
      host.failCall(0);
      const std::string where = "call " + std::to_string(n) +
                                (fault == Fault::fails ? " fails" : " is short") + (stays ? " for good" : "");
      ASSERT_EQ(host.openDescriptors(), 0u) << where;
      if (Stream player = open()) tagsOf(player);
      ASSERT_EQ(host.openDescriptors(), 0u) << where;
      const Bytes file = host.exists(kFile) ? bytes() : Bytes{};
      if (!outcome.atShortWrite && file.size() >= kFirstTag) {
        ASSERT_EQ(mirror->files[kFile].bytes(), file) << where;
      }
      // Whole, and once; of the metadata, what isn't rewritten.
      for (const u32 i : outcome.written) {
        const Bytes tag = tagBytes({tagOf(i)});
        const auto end = i == 0 ? tag.begin() + 25 : tag.end();
        const auto found = std::search(file.begin(), file.end(), tag.begin(), end);
        ASSERT_NE(found, file.end()) << where << ", tag " << i;
        ASSERT_EQ(std::search(found + 1, file.end(), tag.begin(), end), file.end()) << where << ", tag " << i;
      }
      ASSERT_NO_FATAL_FAILURE(expectNothingLost(outcome.atShortWrite.value_or(file), outcome.sure, where));
      if (fired) continue;
      ASSERT_EQ(outcome.written.size(), kFlushes * kTagsAFlush) << where;
    }
    EXPECT_GT(n, 50u);
  }
}

}  // namespace
}  // namespace orv::test
