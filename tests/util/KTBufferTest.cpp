#include "util/KTBuffer.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "util/KTThrowable.h"
#include "util/Witness.h"

namespace {

TEST(KTPtr, callsOnlyWhenOwnershipChanges) {
  std::string log;
  {
    KTPtr<Witness> a(new Witness("a", log)), b(new Witness("b", log)), none(nullptr);
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

TEST(KTObject, releaseGivesZeroWhenItDestroys) {
  std::string log;
  Witness* const object = new Witness("o", log);
  EXPECT_EQ(0, object->getRefCount());
  EXPECT_EQ(1, object->addRef());
  EXPECT_EQ(2, object->addRef());
  EXPECT_EQ(1, object->release());
  EXPECT_TRUE(object->self() == object && object->queryTrue(0));
  EXPECT_EQ(0, object->release());
  EXPECT_EQ("+o +o -o -o ~o ", log);
}

TEST(KTPtr, countsHoldUnderContention) {
  std::string log;
  const KTPtr<KTMemory> shared(new KTMemory(8, nullptr));
  std::vector<std::thread> threads(4);
  for (std::thread& thread : threads) {
    thread = std::thread([shared] {
      KTPtr<KTMemory> mine;
      for (int i = 0; i < 20000; ++i) {
        mine = shared;
        mine->length.increment();
        mine = nullptr;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(80000, shared->length.read());
  threads.clear();
  EXPECT_EQ(1, shared->getRefCount());
}

// Keeps the last block that came home and hands it out again.
class OneBlockPool : public KTPoolSide<KTMemory> {
 public:
  KTMemory* acquire(u32 size) override {
    KTMemory* const block = home ? home : new KTMemory(size, this);
    home = nullptr;
    return block;
  }
  void recycle(KTMemory* block) override {
    ++recycled;
    home = block;
  }
  ~OneBlockPool() {
    if (home) home->release();
  }

  KTMemory* home = nullptr;
  int recycled = 0;
};

TEST(KTMemory, pooledBlockGoesHomeWhenOnlyThePoolHoldsIt) {
  OneBlockPool pool;
  KTMemory* block = nullptr;
  for (u32 round = 1; round <= 2; ++round) {
    KTMemoryPtr user(16, &pool);
    EXPECT_TRUE(!block || block == user.get());
    block = user.get();
    EXPECT_EQ(2, block->getRefCount());
    block->addRef();
    EXPECT_EQ(2, block->release());
    user = nullptr;
    EXPECT_EQ(block, pool.home);
    EXPECT_EQ(1, block->getRefCount());
    EXPECT_EQ(round, block->recycleCount);
  }
  pool.home = nullptr;
  EXPECT_EQ(0, block->release());  // By the pool itself: destroyed, and not handed to it once more.
  EXPECT_EQ(2, pool.recycled);
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
  KTBuffer empty;
  EXPECT_TRUE(!empty.memory.get() && !empty.data && empty.size == 0);
  EXPECT_EQ(0u, empty.append("x", 1));

  KTBuffer buffer(5, nullptr);
  EXPECT_EQ(3u, buffer.append("abc", 3));
  EXPECT_EQ(2u, buffer.append("defg", 4));
  EXPECT_EQ(0u, buffer.append("h", 1));
  EXPECT_EQ("abcde", std::string(buffer.data, buffer.data + buffer.end));

  const KTMemoryPtr block = buffer.memory;
  buffer.assign(block, 1, 4);
  EXPECT_EQ(2, block->getRefCount());
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
  try {
    throw KTBreakConnection();
  } catch (const KTException& error) {
    EXPECT_EQ(0xC0000405, dynamic_cast<const KTBreakConnection&>(error).code);
    EXPECT_TRUE(error.message.empty());
  }
  EXPECT_THROW(throw KTOutOfMemory(), KTThrowable);
  EXPECT_EQ(KTException(u"why").message, u"why");
}

TEST(KTThrowable, aFailedCheckGoesOn) {
  for (const char* path : {"/home/x/src/util/A.cpp", "no-folder.cpp", "", static_cast<const char*>(nullptr)})
    assertFailed(path, 1);
  EXPECT_STREQ("src/util/A.cpp", orv::util::projectPath("/src/x/src/util/A.cpp"));
  EXPECT_STREQ("src/util/A.cpp", orv::util::projectPath("src/util/A.cpp"));
  EXPECT_STREQ("A.cpp", orv::util::projectPath("A.cpp"));
}

}  // namespace
