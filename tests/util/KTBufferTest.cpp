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
class Witness : public KTObject {
 public:
  Witness(char name, std::string& log) : name_(name), log_(log) {}
  ~Witness() override { note('~'); }
  i32 addRef() override { return note('+'), KTObject::addRef(); }
  i32 release() override { return note('-'), KTObject::release(); }

 private:
  void note(char call) { log_ += {call, name_, ' '}; }

  const char name_;
  std::string& log_;
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
    a = nullptr;
    KTPtr<Witness> copy(b);
    EXPECT_EQ("-a ~a +b -b +b ", log);
    log.clear();
    copy = nullptr;
  }
  EXPECT_EQ("-b -b ~b ", log);
}

TEST(KTPtr, countsHoldUnderContention) {
  const KTPtr<KTMemory> shared(new KTMemory(8, nullptr));
  orv::test::onThreads(4, [shared](int) {
    KTPtr<KTMemory> mine;
    for (int i = 0; i < 20000; ++i) {
      mine = shared;
      mine->length.increment();
      mine = nullptr;
    }
  });
  EXPECT_EQ(80000, shared->length.read());
  EXPECT_EQ(1, shared->getRefCount());
}

// Holds what is out, as a pool does.
class PoolOfOne : public KTPoolSide<KTMemory> {
 public:
  KTMemory* acquire(u32 size) override { return new KTMemory(size, this); }
  void recycle(KTMemory*) override { ++recycled; }
  std::size_t recycled = 0;
};

// Two threads take the first counts of each entry at once.
TEST(KTMemory, firstCountsOfAPooledBlockAreNeverLost) {
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
      blocks[i]->addRef();
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
  EXPECT_NE(foreign, borrowed.data);
  EXPECT_NE(nullptr, borrowed.freeFunction);
}

TEST(KTBuffer, appendsWhatFits) {
  KTBuffer buffer;
  EXPECT_EQ(0u, buffer.append("x", 1));
  buffer = KTBuffer(5, nullptr);
  EXPECT_EQ(3u, buffer.append("abc", 3));
  EXPECT_EQ(2u, buffer.append("defg", 4));
  EXPECT_EQ(0u, buffer.append("h", 1));
  EXPECT_EQ("abcde", std::string(buffer.data, buffer.data + buffer.end));

  const KTMemoryPtr block = buffer.memory;
  buffer.assign(block, 1, 4);
  EXPECT_TRUE(buffer.data == block->data && buffer.size == 5 && buffer.begin == 1 && buffer.end == 4);
  buffer.assign(block, 7, 9);  // Breaks the rule, is stored all the same, and writes nowhere.
  EXPECT_EQ(9u, buffer.end);
  EXPECT_EQ(0u, buffer.append("xyz", 3));
  buffer.assign(KTMemoryPtr(), 0, 0);
  EXPECT_TRUE(!buffer.data && buffer.size == 0 && buffer.end == 0);
}

TEST(KTBuffer, readsLengthPrefixedRuns) {
  const u8 bytes[] = {0, 0, 0, 0, 0, 0, 0, 2, 'h', 'i', 0xEE};
  const u8* cursor = bytes;
  EXPECT_EQ(nullptr, KTBuffer::fromBytes(cursor).memory.get());
  EXPECT_EQ(bytes + 4, cursor);
  const KTBuffer view = KTBuffer::fromBytes(cursor);
  EXPECT_EQ(bytes + 10, cursor);
  EXPECT_EQ("hi", std::string(view.data + view.begin, view.data + view.end));
  EXPECT_EQ(2u, view.size);
  const u8* none = nullptr;
  EXPECT_EQ(nullptr, KTBuffer::fromBytes(none).data);
  EXPECT_EQ(nullptr, none);
}

TEST(KTThrowable, isCaughtByClass) {
  EXPECT_EQ(0xC0000405, KTBreakConnection().code);
  EXPECT_THROW(throw KTBreakConnection(), KTException);
}

TEST(KTThrowable, aFailedCheckGoesOn) {
  assertFailed(nullptr, 1);
  EXPECT_STREQ("src/util/A.cpp", orv::util::projectPath("/src/x/src/util/A.cpp"));
  EXPECT_STREQ("src/util/A.cpp", orv::util::projectPath("src/util/A.cpp"));
  EXPECT_STREQ("A.cpp", orv::util::projectPath("A.cpp"));
}

}  // namespace
