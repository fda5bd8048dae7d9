// Files that lie, hosts that fail, files that change under a reader: a stated result, never a crash, a leak
// or an endless search.

#include "EngineTest.h"
#include "support/Random.h"

namespace orv::test {
namespace {

class BadInputTest : public EngineTest {
 protected:
  // Everything a player does with a file, as far as the file lets it. All results stay in their ranges.
  void playAll() {
    Stream stream = open();
    if (!stream) return;
    const i64 size = stream.size();
    ASSERT_GE(size, 0);
    ASSERT_TRUE(stream.endPosition() == size || stream.endPosition() == 0);
    for (const u32 time : {0u, 25u, stream.duration(), 0xFFFFFFFFu}) check(stream, stream.atTime(time), size);
    for (const i64 position : {i64{0}, size / 3, size - 1}) check(stream, stream.atPosition(position), size);
    stream.load({0, size, 0, 0});
  }
  void check(Stream& stream, const std::optional<SegmentBounds>& found, i64 size) {
    if (!found) return;
    ASSERT_TRUE(0 <= found->startPosition && found->startPosition <= found->endPosition &&
                found->endPosition < size);
    std::size_t delivered = 0;
    for (const Message& message : stream.load(*found)) delivered += message.data.size();
    // The last tag of a run may be as long as the whole of it.
    ASSERT_LE(static_cast<i64>(delivered), 2 * (found->endPosition - found->startPosition + 1));
  }
};

TEST_F(BadInputTest, flippedBytesAndNoise) {
  Random random(5);
  const Bytes header = FlvBuilder().bytes(), tags = FlvBuilder().interleaved(4).bytes();
  for (std::size_t at = 0; at < tags.size(); ++at) {
    host.put(kFile, tags);
    host.overwrite(kFile, static_cast<i64>(at), {static_cast<u8>(tags[at] ^ (1 + random.below(255)))});
    playAll();
  }
  for (const u32 size : {1u, 12u, 100u, 5000u, 400'000u}) {
    for (const int fill : {-1, 0x00, 0x08, 0x09, 0xFF}) {
      Bytes noise(size);
      for (u8& byte : noise) byte = static_cast<u8>(fill < 0 ? random() : static_cast<u32>(fill));
      for (const Bytes& before : {Bytes(), header, tags}) {
        host.put(kFile, before);
        host.append(kFile, noise);
        playAll();
      }
    }
  }
}

// A player's whole road, with two segments to seek in.
class FaultTest : public BadInputTest {
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
  testing::internal::CaptureStdout();
  EXPECT_FALSE(stream.atTime(2500));
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_LE(host.calls.size(), 300u);
  EXPECT_LE(text.size(), 300u);
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

TEST_F(BadInputTest, shrunkenFile) {
  const FlvBuilder film = FlvBuilder().interleaved(400, 1);
  Stream stream = open(film);
  const SegmentBounds all = stream.atPosition(0).value();
  stream.load(all);  // and nothing is cached any more
  host.cut(kFile, film.tags()[200].position + 20);
  bool good = true;
  stream.load(all, &good);
  EXPECT_FALSE(good);  // the summary still promises more
  EXPECT_EQ(stream.size(), film.tags()[198].end());
  EXPECT_EQ(unpack(stream.load(all, &good)).size(), 199u);
  EXPECT_TRUE(good);  // cut to the new end
  host.remove(kFile);
  EXPECT_TRUE(stream.load(all, &good).empty());
  EXPECT_FALSE(good);
}

TEST_F(BadInputTest, settingsThatAreGarbage) {
  host.put(kFile, FlvBuilder().scenes(600'000).raw(Bytes(9)).bytes());
  adaptor();
  for (const std::string& key : std::vector(host.askedKeys)) {
    for (const std::string& value :
         {std::string(), std::string("-1"), std::string("16777216"), std::string("9 8 x"),
          std::string(70'000, 'x'), std::string("\xFF\x01")}) {
      configure({{key, value}});
      playAll();
    }
  }
  configure({{"AutoBufferReadSize", "4294967295"}, {"ReadSize", "4294967295"}});
  EXPECT_TRUE(open().atTime(0));
}

}  // namespace
}  // namespace orv::test
