// Recording, metadata and replay with the pools installed: a host sees no difference, and everything comes
// home.

#include <thread>

#include "RecordTest.h"
#include "server/KTMessagePool.h"

namespace orv::test {
namespace {

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
  const std::string name = "c:\\media\\film", file = name + ".flv";
  for (const char* const claim :
       {"03 <duration> 00 =0 <title> 02 <x> 000009", "11 09 01 11'duration' 05 =0 0B'title' 06 03'x' 01"}) {
    host.remove(file);
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
    seen = seen + host.file(file).image.bytes() + stream->metadata() + tagBytes(tagsOf(*stream));
  }
  return seen;
}

template <class Object>
void expectAllHome(KTPool<Object>& pool) {
  const KTPoolCounters counters = pool.counters();
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
  // What comes back is as good as new.
  for (int round = 0; round < 2; ++round) {
    const KTMessagePtr message(messages.acquire(100));
    EXPECT_EQ(message->memory->capacity, 104u);
    EXPECT_EQ(message->length() + message->type(), 0u);
    message->setType(kVideo);
    message->append("payload", 7);
  }
  for (const u32 slot : {1u, 0u}) slotSet(slot, nullptr, nullptr);  // Messages first: they hold blocks.
  expectAllHome(messages);
  expectAllHome(blocks);
  const KTPoolTally free = messages.counters().free;
  EXPECT_EQ(free.bytes, free.count * sizeof(KTMessage));  // None has kept its block.
}

}  // namespace
}  // namespace orv::test
