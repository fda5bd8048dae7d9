// A pool driven by random operations of several threads, beside a plain model of its rules.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <new>

#include "support/HeapWatch.h"
#include "support/Random.h"
#include "util/KTPool.h"

namespace {

using orv::test::HeapWatch;

// What a block costs and a hit counts beside the bytes.
constexpr u32 kOverhead = sizeof(KTMemory);

// A block. Numbers follow the order in which blocks are made.
struct Item {
  int number;
  u32 capacity;
};

using List = std::deque<Item>;

u64 costOf(const Item& item) {
  return item.capacity + kOverhead;
}

// Entries and bytes, summed up without the product's help.
using Sum = std::array<u64, 2>;

void add(Sum& sum, u64 bytes) {
  ++sum[0];
  sum[1] += bytes;
}

Sum sumOf(const List& list) {
  Sum sum{};
  for (const Item& item : list) add(sum, costOf(item));
  return sum;
}

// What threads count, and then what the pool counts.
constexpr std::size_t kHits = 0, kCached = 1, kAlloc = 2, kDestroy = 3, kOversizeAlloc = 4, kOversizeFree = 5,
                      kThreadBooks = 6, kFree = 6, kDirectAlloc = 7, kPoolDestroy = 8, kTaken = 9,
                      kReturned = 10, kPoolOversizeAlloc = 11, kPoolOversizeFree = 12, kBooks = 13;
using Books = std::array<Sum, kBooks>;

Books booksOf(const KTPoolCounters& c) {
  const auto& t = c.totals;
  const auto of = [](const KTPoolTally& tally) { return Sum{tally.count, tally.bytes}; };
  return {of(t.hits),         of(t.cached),        of(t.alloc),       of(t.destroy), of(t.oversizeAlloc),
          of(t.oversizeFree), of(c.free),          of(c.directAlloc), of(c.destroy), of(c.taken),
          of(c.returned),     of(c.oversizeAlloc), of(c.oversizeFree)};
}

void moveFirst(List& from, List& to, Sum& moved) {
  add(moved, costOf(from.front()));
  to.push_back(from.front());
  from.pop_front();
}

// The rules, with lists of numbers in place of blocks.
struct Model {
  struct Thread {
    bool hasCache = false;
    List list;
    i32 outstanding = 0;
    std::array<Sum, kThreadBooks> stats{};
    Sum told{};  // What the pool believes the list to hold.
  };

  explicit Model(const KTPoolSettings& s) : settings(s) { updateMarks(); }

  void updateMarks() {
    const u64 average = c[kTaken][0] > 0 ? c[kTaken][1] / c[kTaken][0] : 0;
    averageSize = average > 0 ? static_cast<u32>(average) : settings.maxEntrySize;
    const u32 limit = std::min(settings.maxEntries, settings.maxBytes / averageSize);
    const u32 threads = cacheCount > 1 ? cacheCount : 1;
    low = ((settings.lowShare * limit) >> 10) / threads;
    high = limit / threads;
    for (; free.size() > limit; free.pop_front()) add(c[kPoolDestroy], costOf(free.front()));
    c[kFree] = sumOf(free);
  }

  void mayFail() {
    if (failing >= 0 && failing-- == 0) throw std::bad_alloc();
  }

  void makeFit(Item& item, u32 size) {
    if (size <= item.capacity) return;
    item.capacity = 0;  // As a block is left when the new bytes can't be had.
    mayFail();
    item.capacity = size;
  }

  void tell(Thread& t) {
    const Sum now = sumOf(t.list);
    for (const std::size_t i : {0u, 1u}) c[kCached][i] += now[i] - t.told[i];
    t.told = now;
    c[kFree] = sumOf(free);
  }

  void merge(Thread& t) {
    for (std::size_t book = 0; book < kThreadBooks; ++book) {
      for (const std::size_t i : {0u, 1u}) c[book][i] += t.stats[book][i];
    }
    t.stats = {};
    tell(t);
    updateMarks();
  }

  void giveBack(Thread& t) {
    merge(t);
    while (!t.list.empty()) moveFirst(t.list, free, c[kReturned]);
    tell(t);
  }

  // First all objects, then the bytes of each.
  Item make(u32 size, u32 number, Thread* t) {
    int next = made;
    for (u32 left = number; left > 0; --left, ++made) mayFail();
    for (;; ++next) {
      Item item{next, 0};
      makeFit(item, size);
      if (t) add(t->stats[kAlloc], costOf(item));
      if (next == made - 1) return item;
      t->list.push_back(item);
    }
  }

  Item hit(Thread& t, u32 size) {
    makeFit(t.list.front(), size);
    add(t.stats[kHits], u64{size} + kOverhead);
    const Item item = t.list.front();
    t.list.pop_front();
    return item;
  }

  void makeCache(Thread& t) {
    if (!t.hasCache) ++cacheCount;
    t.hasCache = true;
  }

  Item acquire(Thread& t, u32 size) {
    makeCache(t);
    if (size > settings.maxEntrySize) {
      const Item item = make(size, 1, &t);
      add(t.stats[kOversizeAlloc], costOf(item));
      return item;
    }
    const i64 outstanding = t.outstanding + 1;
    Item item{};
    if (!t.list.empty()) {
      item = hit(t, size);
      if (t.stats[kHits][0] > settings.syncInterval) merge(t);
    } else {
      const u32 want = outstanding > 0 ? static_cast<u32>(outstanding) * 2 : low;
      const u32 take = std::min(want, high);
      merge(t);
      for (u32 left = take; left > 0 && !free.empty(); --left) moveFirst(free, t.list, c[kTaken]);
      tell(t);
      item = t.list.empty() ? make(size, std::max(take, 1u), &t) : hit(t, size);
    }
    ++t.outstanding;
    return item;
  }

  void recycle(Thread& t, const Item& item) {
    makeCache(t);
    if (costOf(item) > settings.maxEntrySize) {
      add(t.stats[kOversizeFree], costOf(item));
      add(t.stats[kDestroy], costOf(item));
      return;
    }
    --t.outstanding;
    t.list.push_back(item);
    if (t.list.size() > high) {
      giveBack(t);
    } else if (t.stats[kHits][0] > settings.syncInterval) {
      merge(t);
    }
  }

  void end(Thread& t) {
    if (!t.hasCache) return;
    --cacheCount;
    giveBack(t);
    t = {};
  }

  // A thread whose slot another pool has.
  Item acquireDirectly(u32 size) {
    const Item item = make(size, 1, nullptr);
    add(c[kDirectAlloc], costOf(item));
    if (costOf(item) > settings.maxEntrySize) add(c[kPoolOversizeAlloc], costOf(item));
    return item;
  }
  void recycleDirectly(const Item& item) {
    if (costOf(item) > settings.maxEntrySize) add(c[kPoolOversizeFree], costOf(item));
    add(c[kPoolDestroy], costOf(item));
  }

  const KTPoolSettings settings;
  Books c{};
  u32 cacheCount = 0, averageSize = 0, low = 0, high = 0;
  List free;
  int made = 0;
  int failing = -1;  // The allocations that succeed before one throws.
};

// A thread as the pool sees one: slots of its own.
class Hand {
 public:
  ~Hand() { end(); }

  template <class Action>
  void run(Action action) {
    void* const callers = threadSlots_.get();
    threadSlots_.set(slots_);
    action();
    slots_ = threadSlots_.get();
    threadSlots_.set(callers);
  }
  void end() { run(slotsTearDown); }

 private:
  static inline orv::platform::ThreadLocal& threadSlots_ = orv::util::hidden::slotsOfThread;
  void* slots_ = nullptr;
};

constexpr u32 kHands = 4;  // The last one never gets a cache.

void compare(const KTPoolSettings& settings, u32 seed, HeapWatch& heap) {
  KTPool<KTMemory> pool(settings), other(settings);
  Model model(settings);
  Model::Thread threads[kHands];
  std::map<int, KTMemory*> known, live;  // By the model's numbers: every block so far, and what is in use.
  Hand hands[kHands];
  orv::test::Random random(seed);
  hands[kHands - 1].run([&] { other.threadCache(); });

  for (u32 step = 0; step < 4000; ++step) {
    const u32 who = random.below(kHands);
    const bool direct = who == kHands - 1;
    Model::Thread& thread = threads[who];
    const u32 takes = step / 500 % 2 ? 35 : 65;  // Percent: mostly taking, then mostly releasing.
    if (!direct && random.oneIn(50)) {
      hands[who].end();
      model.end(thread);
    } else if (random.below(100) < takes || live.empty()) {
      const u32 border = settings.maxEntrySize - kOverhead;
      const u32 size = random.oneIn(10) ? border + random.below(2 * kOverhead) : random.below(200);
      model.failing = random.oneIn(20) ? static_cast<int>(random.below(4)) : -1;
      KTMemory* got = nullptr;
      hands[who].run([&] {
        pool.threadCache();
        heap.failAt(static_cast<u32>(model.failing + 1));
        try {
          got = pool.acquire(size);
          got->addRef();
        } catch (const std::bad_alloc&) {
        }
        heap.failAt(0);
      });
      try {
        const Item wanted = direct ? model.acquireDirectly(size) : model.acquire(thread, size);
        ASSERT_NE(nullptr, got) << step;
        ASSERT_EQ(got, known.try_emplace(wanted.number, got).first->second) << step;
        ASSERT_EQ(wanted.capacity, got->capacity) << step;
        ASSERT_EQ(2, got->getRefCount());
        ASSERT_EQ(nullptr, got->nextFree);
        ASSERT_EQ(0, got->length.read() | got->writeOffset.read());
        live[wanted.number] = got;
        got->length.store(1);
        got->writeOffset.store(1);
      } catch (const std::bad_alloc&) {
        ASSERT_EQ(nullptr, got) << step;
      }
      model.failing = -1;
    } else {
      const auto chosen = std::next(live.begin(), random.below(static_cast<u32>(live.size())));
      const Item item{chosen->first, chosen->second->capacity};
      hands[who].run([&] { chosen->second->release(); });
      direct ? model.recycleDirectly(item) : model.recycle(thread, item);
      live.erase(chosen);
    }
    const KTPoolCounters counters = pool.counters();
    ASSERT_EQ(model.c, booksOf(counters)) << step;
    ASSERT_EQ(model.cacheCount, counters.cacheCount);
    ASSERT_EQ(model.averageSize, counters.averageSize);
    ASSERT_EQ(model.low, pool.lowMark());
    ASSERT_EQ(model.high, pool.highMark());
    if (!thread.hasCache) continue;
    hands[who].run([&] {
      EXPECT_EQ(thread.outstanding, pool.threadCache()->outstanding());
      EXPECT_EQ(thread.list.size(), pool.threadCache()->count());
    });
  }
  for (const auto& entry : live) hands[0].run([&] { entry.second->release(); });
  for (Hand& hand : hands) hand.end();
  EXPECT_EQ(KTPoolTally{}, pool.counters().totals.cached);
}

// What a thread keeps when its pool goes, goes with it; the thread's slot, with the thread.
TEST(KTPoolModel, leavesNothingBehindForThreadsThatLiveOn) {
  slotsCollect();
  const HeapWatch heap;
  {
    Hand hand;
    KTPool<KTMemory> pool({2, 340, 200, 60'000, 256, 20});
    hand.run([&] { const KTMemoryPtr block(100, &pool); });
  }
  EXPECT_EQ(0u, heap->live);
}

TEST(KTPoolModel, agreesOverRandomOperations) {
  const struct {
    const char* name;
    KTPoolSettings settings;
  } kCases[] = {
      {"roomy", {2, 340, 200, 60'000, 256, 20}},
      {"few entries", {2, 340, 9, 60'000, 512, 5}},
      {"few bytes", {2, 340, 200, 2'600, 300, 3}},
      {"no room at all", {2, 340, 0, 60'000, 1024, 4}},
      {"one entry", {2, 340, 3, 600, 1024, 0}},
      {"share that wraps", {2, 340, 200, 60'000, 0xFFFFFFFF, 50}},
  };
  for (const auto& c : kCases) {
    for (u32 seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(testing::Message() << c.name << ", seed " << seed);
      slotsCollect();  // What other tests have left must not come back during the watch.
      HeapWatch heap;
      compare(c.settings, seed, heap);
      if (HasFatalFailure()) return;
      EXPECT_EQ(0u, heap->live);
    }
  }
}

}  // namespace
