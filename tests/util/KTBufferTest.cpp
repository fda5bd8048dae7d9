#include "util/KTBuffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/Threads.h"
#include "util/KTThrowable.h"

namespace {

// Notes the calls that reach it: "+" and "-" for its count, "~" for its end.
struct Witness : KTObject {
  Witness(char itsName, std::string& itsLog) : name(itsName), log(itsLog) {}
  ~Witness() override { log += {'~', name, ' '}; }
  i32 addRef() override { return log += {'+', name, ' '}, KTObject::addRef(); }
  i32 release() override { return log += {'-', name, ' '}, KTObject::release(); }

  const char name;
  std::string& log;
};

TEST(KTPtr, callsOnlyWhenOwnershipChanges) {
  std::string log;
  {
    KTPtr<Witness> a(new Witness('a', log)), b(new Witness('b', log)), none(nullptr);
    log.clear();
    const KTPtr<Witness>& self = a;
    a = self;
    none = none.get();
    EXPECT_EQ("", log);
    EXPECT_EQ(1, a->getRefCount());
    a = b;
    EXPECT_EQ("-a ~a +b ", log);  // The old one goes first.
    EXPECT_EQ(2, b->getRefCount());
    KTPtr<Witness> copy(b);
    a = copy = nullptr;
  }
  EXPECT_EQ("-a ~a +b +b -b -b -b ~b ", log);
}

// Holds what is out, as a pool does.
class PoolOfOne : public KTPoolSide<KTMemory> {
 public:
  KTMemory* acquire(u32 size) override { return new KTMemory(size, this); }
  void recycle(KTMemory*) override { ++recycled; }
  std::size_t recycled = 0;
};

// Two threads take the first counts of each entry at once, and drop some.
TEST(KTMemory, countsOfAPooledBlockAreNeverLost) {
  constexpr std::size_t kBatch = 200, kBatches = 500;
  PoolOfOne pool;
  std::vector<std::unique_ptr<KTMemory>> blocks(kBatch * kBatches);
  for (auto& block : blocks) block.reset(pool.acquire(8));
  std::atomic<std::size_t> arrivals{0};
  orv::test::onThreads(2, [&](int) {
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      if (i % kBatch == 0) {  // Side by side again.
        ++arrivals;
        while (arrivals < 2 * (i / kBatch + 1)) std::this_thread::yield();
      }
      for (int count = 0; count < 2; ++count) blocks[i]->addRef();
      blocks[i]->release();
    }
  });
  for (const auto& block : blocks) {
    ASSERT_EQ(3, block->getRefCount());
    EXPECT_EQ(2, block->release());
    EXPECT_EQ(1, block->release());
  }
  EXPECT_EQ(kBatch * kBatches, pool.recycled);
}

TEST(KTMemory, reserveKeepsWhatIsEnoughAndNoMore) {
  const KTMemoryPtr block(4, nullptr);
  EXPECT_EQ(1, block->getRefCount());
  u8* const place = block->data;
  block->reserve(4);
  EXPECT_EQ(place, block->data);
  block->reserve(5);
  EXPECT_EQ(5u, block->capacity);
  block->data[4] = 1;

  KTMemory borrowed;
  u8 foreign[4];
  borrowed.data = foreign;
  borrowed.capacity = sizeof foreign;
  borrowed.reserve(100);  // Lets go of what it never owned.
  EXPECT_TRUE(borrowed.data != foreign && borrowed.freeFunction);
}

std::string textOf(const KTBuffer& view) {
  return {view.data + view.begin, view.data + view.end};
}

TEST(KTBuffer, appendsWhatFits) {
  KTBuffer buffer;
  EXPECT_EQ(0u, buffer.append("x", 1));
  buffer = KTBuffer(5, nullptr);
  EXPECT_EQ(5u, buffer.append("abc", 3) + buffer.append("defg", 4) + buffer.append("h", 1));
  EXPECT_EQ("abcde", textOf(buffer));
  buffer.assign(KTMemoryPtr(buffer.memory), 1, 4);
  EXPECT_EQ("bcd", textOf(buffer));
  EXPECT_EQ(5u, buffer.size);
  buffer.assign(KTMemoryPtr(buffer.memory), 7,
                9);  // Breaks the rule, is stored all the same, and writes nowhere.
  EXPECT_EQ(9u, buffer.end);
  EXPECT_EQ(0u, buffer.append("xyz", 3));
  buffer.assign(KTMemoryPtr(), 0, 0);
  EXPECT_TRUE(!buffer.data && buffer.size == 0 && buffer.end == 0);
}

TEST(KTBuffer, readsLengthPrefixedRuns) {
  const u8 bytes[] = {0, 0, 0, 0, 0, 0, 0, 2, 'h', 'i', 0xEE};
  const u8 *cursor = bytes, *none = nullptr;
  EXPECT_FALSE(KTBuffer::fromBytes(none).memory || KTBuffer::fromBytes(cursor).memory);
  EXPECT_EQ(bytes + 4, cursor);
  EXPECT_EQ("hi", textOf(KTBuffer::fromBytes(cursor)));
  EXPECT_EQ(bytes + 10, cursor);
}

TEST(KTThrowable, isCaughtByClassAndAFailedCheckGoesOn) {
  EXPECT_EQ(0xC0000405, KTBreakConnection().code);
  EXPECT_THROW(throw KTBreakConnection(), KTException);
  assertFailed(nullptr, 1);
  for (const char* path : {"/src/x/src/util/A.cpp", "src/util/A.cpp"})
    EXPECT_STREQ("src/util/A.cpp", orv::util::projectPath(path));
  EXPECT_STREQ("A.cpp", orv::util::projectPath("A.cpp"));
}

}  // namespace
