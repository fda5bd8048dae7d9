// Recording, metadata and replay with the pools installed: a host sees no difference, and everything comes
// home.

#include <thread>

#include "RecordTest.h"
#include "server/KTMessagePool.h"
#include "support/Holders.h"

namespace orv::test {
namespace {

using namespace amf;

// Threads of a host that come and go: what one of them takes, others release.
template <class Work>
void onThread(Work work) {
  std::thread([&] {
    work();
    slotsTearDown();
  }).join();
}

// The bytes of two recordings, and all that is read of them again.
Bytes road() {
  MemoryHost host;
  IQVStreamAdaptor* made = nullptr;
  EXPECT_EQ(1, IQVCreateAdaptor(&host, &made));  // Of this program, not of the module: pools are its own.
  const std::unique_ptr<IQVStreamAdaptor> adaptor(made);
  Bytes seen;
  for (const bool amf3 : {false, true}) {
    const std::string name = amf3 ? "c:\\media\\three" : "c:\\media\\zero";
    const Bytes claim = amf3 ? array3({{"duration", Bytes{5} + ieee(0)}, {"title", Bytes{6} + key3("x")}})
                             : object({{"duration", number(0)}, {"title", text("x")}});
    std::optional<Stream> stream;
    onThread([&] { stream.emplace(*adaptor, name, Stream::record); });
    for (u32 round = 0; round < 5; ++round) {
      onThread([&] {
        EXPECT_TRUE(stream->stage(kData, round, onMetaData(claim)));
        for (u32 i = 0; i < 50; ++i) stream->stage(kVideo, round * 50 + i, Bytes(1 + i * 37, 0x22));
      });
      onThread([&] { EXPECT_TRUE(stream->flush()); });
      onThread([&] { seen = seen + stream->metadata(); });
    }
    onThread([&] { stream.reset(); });
    stream.emplace(*adaptor, name);
    seen = seen + host.file(name + ".flv").image.bytes() + stream->metadata();
    for (const SegmentBounds& bounds : stream->walk())
      for (const Message& message : stream->load(bounds)) seen = seen + message.data;
  }
  return seen;
}

void expectAllHome(const KTPoolCounters& counters) {
  EXPECT_GT(counters.totals.hits.count, 0u);
  EXPECT_EQ(counters.cacheCount, 0u);
  EXPECT_EQ(counters.totals.cached, KTPoolTally{});
  EXPECT_EQ(counters.totals.alloc.count,
            counters.totals.destroy.count + counters.destroy.count + counters.free.count);
}

TEST(PooledRoadTest, givesTheSameAndLeavesNothing) {
  const Bytes plain = road();
  KTPool<KTMemory> blocks({0, 65536, 64, 1 << 22, 128, 20});
  KTPool<KTMessage> messages({1, 65536, 64, 1 << 22, 128, 20});
  defaultMemoryPool = &blocks;
  defaultMessagePool = &messages;
  const Bytes pooled = road();
  defaultMemoryPool = nullptr;
  defaultMessagePool = nullptr;
  EXPECT_EQ(plain, pooled);
  for (const u32 slot : {1u, 0u}) slotSet(slot, nullptr, nullptr);  // Messages first: they hold blocks.
  expectAllHome(messages.counters());
  const KTPoolCounters counters = blocks.counters();
  EXPECT_GT(counters.totals.alloc.count, 0u);
  EXPECT_LE(counters.free.count, counters.totals.alloc.count);
}

// What the pool hands out is as good as new, whatever it carried before.
TEST(PooledRoadTest, messagesComeBackEmpty) {
  KTPool<KTMessage> pool({1, 65536, 64, 1 << 22, 128, 20});
  KTMessage* first = nullptr;
  for (int round = 0; round < 2; ++round) {
    const KTMessagePtr message(pool.acquire(100));
    if (round == 0) first = message.get();
    EXPECT_EQ(message->memory->capacity, 104u);
    EXPECT_EQ(message->memory->length.read(), 0);
    EXPECT_EQ(message->length(), 0u);
    EXPECT_EQ(message->type(), 0);
    message->setTime(7);
    message->append("payload", 7);
    message->firstMark = 1;
    message->firstAttachment = KTObjectPtr(new KTMemory);
    const KTMessagePtr spare(pool.acquire(100));
    EXPECT_TRUE(round == 0 || spare.get() == first || message.get() == first);
  }
  EXPECT_EQ(first->memory.get(), nullptr);
  EXPECT_EQ(first->recycleCount, 2u);
  slotSet(1, nullptr, nullptr);
  expectAllHome(pool.counters());
  EXPECT_EQ(pool.counters().free.bytes % sizeof(KTMessage), 0u);
}

}  // namespace
}  // namespace orv::test
