// Files that lie, hosts that fail, files that change under a reader: a stated result, never a crash, a leak
// or an endless search.

#include "EngineTest.h"

namespace orv::test {
namespace {

using BadInputTest = EngineTest;

// A player's whole road, with two segments to seek in.
class FaultTest : public EngineTest {
 protected:
  const FlvBuilder film = FlvBuilder().constantRate(400'000, 3000);

  // Whatever goes wrong, what is delivered are tags of the file in their order.
  void playRoad() {
    Stream stream = open();
    if (!stream) return;
    const auto all = messagesOf(film);
    for (const u32 time : {0u, film.lastTime(), 700u}) {
      const auto found = stream.atTime(time);
      if (!found) continue;
      auto from = all.begin();
      for (const Message& tag : unpack(stream.load(*found))) {
        from = std::find(from, all.end(), tag);
        ASSERT_NE(from, all.end());
      }
    }
    stream.size();
    stream.duration();

    host.beforeCall = nullptr;
    host.failCall(0);
    host.put(kFile, film.bytes());
    EXPECT_EQ(stream.size(), film.size());  // What went wrong is forgotten.
    EXPECT_EQ(unpack(loadAll(stream)), all);
  }
};

// The call itself fails, or the file is another one by then.
TEST_F(FaultTest, eachEventBeforeEveryCall) {
  const std::function<void(MemoryHost&)> kEvents[] = {
      [](MemoryHost& h) { h.failCall(1, Fault::fails); },
      [](MemoryHost& h) { h.failCall(1, Fault::fails, {}, true); },
      [](MemoryHost& h) { h.failCall(1, Fault::fallsShort); },
      [](MemoryHost& h) { h.failCall(1, Fault::fallsShort, {}, true); },
      [](MemoryHost& h) { h.remove(kFile); },
      [](MemoryHost& h) { h.cut(kFile, 0); },
      [](MemoryHost& h) { h.cut(kFile, 13); },
      [](MemoryHost& h) { h.cut(kFile, 100'001); },
      [](MemoryHost& h) { h.cut(kFile, h.file(kFile).image.size() - 3); },
      [](MemoryHost& h) { h.append(kFile, Bytes(5000)); },
  };
  for (const auto& event : kEvents) {
    u32 n = 1, calls = 0;
    for (; n <= calls + 1; ++n) {  // as long as the last event came about
      host.failCall(0);
      host.put(kFile, film.bytes());
      calls = 0;
      host.beforeCall = [&](const Call&) {
        if (++calls == n) event(host);
      };
      playRoad();
      ASSERT_EQ(host.openDescriptors(), 0u) << n;
    }
    EXPECT_GT(n, 20u);
  }
}

// Not a call and a line of text for each of 16 million candidates.
TEST_F(FaultTest, aDeadDiskIsGivenUpSoon) {
  Stream stream = open(uniformFlv(1000, 100'000, 5));
  host.failCall(1, Fault::fails, Op::read, true);
  host.clearCalls();
  reads.printed();
  EXPECT_FALSE(stream.atTime(2500));
  EXPECT_LE(host.calls.size(), 300u);
  const std::string text = reads.printed();
  EXPECT_TRUE(!text.empty() && text.size() <= 300u) << text;
}

// Rows of tag headers, each of a tag so long that the checks of a candidate look at places 64 MiB apart, and
// fail at the last of them. No place is read twice.
TEST_F(BadInputTest, candidatesThatPointFarAway) {
  constexpr u32 kSize = 16'773'086;  // With its size field, a whole number of slots of 15 bytes.
  constexpr i64 kStart = 300, kStep = kSize + 4;
  const auto fill = [](i64 position, u8* out, u32 size) {
    u8 slot[15];
    flv::writeU32(slot, kSize);
    flv::writeTagHeader(slot + 4, kVideo, kSize - flv::kTagHeaderSize, 5);
    for (u32 i = 0; i < size; ++i)
      out[i] = position + i < kStart + kStep ? 0 : slot[(position + i - kStart) % 15];
  };
  FileImage image(kStart + 5 * kStep, fill);
  const Bytes head = FlvBuilder().tag(kVideo, 1, 0).bytes();
  image.write(0, head.data(), static_cast<u32>(head.size()));
  image.append(Bytes(4));
  for (u32 i = 0; i < 5; ++i) image.append(tagBytes(kVideo, 50 + i, {}));
  configure({{"MaxFrameScan", "262144"}});
  Stream stream = open(std::move(image));
  ASSERT_TRUE(stream);
  host.clearCalls();
  EXPECT_FALSE(stream.atPosition(kStart + 3 * kStep - 1));
  EXPECT_LE(host.count(Op::read), 60u);
}

// Candidates without end: each a sound tag, whose successor's size field is cut by the file's end.
TEST_F(BadInputTest, candidatesThatPointAtTheEnd) {
  FlvBuilder film = FlvBuilder().tag(kVideo, 1, 9);
  constexpr i64 kSize = 2'000'000;
  while (film.size() + 100 < kSize) {
    film.raw(Bytes(4)).tag(kVideo, 5, 0);
    Bytes successor(flv::kTagHeaderSize);
    flv::writeTagHeader(successor.data(), kVideo, static_cast<u32>(kSize - film.size()) - 11 - 2, 5);
    film.raw(successor);
  }
  Bytes bytes = film.bytes();
  bytes.resize(kSize);
  configure({{"AutoBufferReadSize", "1024"}});
  Stream stream = open(FileImage(bytes));
  EXPECT_EQ(stream.endPosition(), 0);
  EXPECT_LE(host.calls.size(), 400u);
}

// What is known of the old file doesn't answer for the new one, once a look has seen the change.
TEST_F(BadInputTest, replacedFile) {
  const FlvBuilder start = FlvBuilder().tag(kVideo, 0, 700), film = FlvBuilder(start).constantRate(900'000);
  FlvBuilder slower(start);
  while (slower.size() < 900'000) slower.tag(kVideo, slower.lastTime() + 40, 1000);
  const FlvBuilder kOthers[] = {FlvBuilder().scenes(800'000),
                                slower,
                                FlvBuilder(start).constantRate(900'000, 1100),  // Tags of another size.
                                FlvBuilder().interleaved(5),
                                FlvBuilder(),
                                FlvBuilder(start).constantRate(300'000),  // The same, shorter,
                                FlvBuilder(start).constantRate(600'000).raw(Bytes(99, 9))};  // and torn.
  for (const i64 known : {900'000, 20'000}) {  // Of the old file; what fits one block has no end but its own.
    for (int i = 0; i < (known == 20'000 ? 5 : 7); ++i) {  // The last two would be growth.
      Stream stream = open(FlvBuilder(start).constantRate(known));
      ASSERT_FALSE(stream.walk().empty());
      host.put(kFile, kOthers[i].bytes());
      EXPECT_GT(stream.size(), 0) << i;
      Stream fresh = open();
      EXPECT_EQ(stream.size(), fresh.size()) << i;
      for (u32 time = 0; time < 20'000; time += 500)
        ASSERT_TRUE(stream.atTime(time) == fresh.atTime(time)) << i << ' ' << time << ' ' << known;
      ASSERT_TRUE(stream.walk() == fresh.walk()) << i;
    }
  }
  // Where the file has only grown the segments stay.
  Stream stream = open(film);
  const auto row = stream.walk();
  const FlvBuilder grown = FlvBuilder(film).constantRate(1'900'000);
  grow(grown);
  host.clearCalls();
  EXPECT_EQ(stream.size(), grown.size());
  EXPECT_EQ(host.calls.size(), 8u);
  host.clearCalls();
  for (const SegmentBounds& segment : row) EXPECT_TRUE(stream.atPosition(segment.startPosition) == segment);
  EXPECT_TRUE(host.calls.empty());
}

// Positions near the largest one: no sum of two of them.
TEST_F(BadInputTest, sizesThatNothingCanBeAddedTo) {
  for (const u32 below : {0u, 14u, 5000u}) {
    for (const bool torn : {false, true}) {
      FlvBuilder film = FlvBuilder().tag(kVideo, 5, 50);
      const std::size_t head = film.bytes().size();
      film.raw(Bytes(4)).tag(kVideo, 10, 300'000).tag(kVideo, 20, 50).tag(kVideo, 30, 50);
      if (torn) film.raw({9, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 9, 9});
      const Bytes tail(film.bytes().begin() + static_cast<std::ptrdiff_t>(head), film.bytes().end());
      FileImage image(std::numeric_limits<i64>::max() - below - static_cast<i64>(tail.size()), nullptr);
      image.write(0, film.bytes().data(), static_cast<u32>(head));
      image.append(tail);
      const i64 end = image.size() - (torn ? 13 + 65 : 0),
                first = image.size() - static_cast<i64>(tail.size()) + 4;
      Stream stream = open(std::move(image));
      ASSERT_EQ(stream.size(), end) << below;
      EXPECT_EQ(stream.duration(), torn ? 20u : 30u) << below;
      const auto last = stream.atPosition(end - 1);
      EXPECT_EQ(last ? last->endPosition : 0, end - 1) << below;
      bool good = false;
      EXPECT_EQ(unpack(stream.load({first, end - 1, 0, 0}, &good)).size(), torn ? 2u : 3u) << below;
      EXPECT_TRUE(good) << below;
    }
  }
}

TEST_F(BadInputTest, settingsThatAreGarbage) {
  const FlvBuilder film = FlvBuilder().scenes(600'000).raw(Bytes(9));
  adaptor();
  for (const std::string& key : std::vector(host.askedKeys)) {
    for (const std::string value : {"", "-1", "16777216", "9 8 x", "\xFF\x01"}) {
      configure({{key, value}});
      Stream stream = open(film);
      if (!stream) continue;
      ASSERT_GE(stream.size(), 0) << key << value;
      for (const SegmentBounds& segment : stream.walk()) stream.load(segment);
    }
  }
  configure({{"AutoBufferReadSize", "4294967295"}, {"ReadSize", "4294967295"}});
  EXPECT_TRUE(open(film).atTime(0));
}

}  // namespace
}  // namespace orv::test
