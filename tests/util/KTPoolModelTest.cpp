// A pool driven by random operations on several threads, one at a time, beside a plain model of its rules.

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "platform/Event.h"
#include "util/KTPool.h"

namespace {

// An entry that can be told from every other.
struct Numbered : KTObject {
  explicit Numbered(KTPoolSide<Numbered>* owner) : pool(owner) { addRef(); }
  ~Numbered() override { --alive; }
  i32 release() override {
    const i32 count = refCount_.decrement();
    if (count < 1) return delete this, 0;
    if (count == 1) pool->recycle(this);
    return count;
  }

  static inline int made = 0, alive = 0, failing = -1;  // `failing`: makes that succeed before one throws.
  const int number = made++;
  u32 capacity = 0;
  KTPoolSide<Numbered>* const pool;
  Numbered* nextFree = nullptr;
};

constexpr u32 kOverhead = 10;

}  // namespace

template <>
struct KTPoolTraits<Numbered> {
  static constexpr u32 kHitOverhead = 3;
  static void mayFail() {
    if (Numbered::failing >= 0 && Numbered::failing-- == 0) throw std::bad_alloc();
  }
  static Numbered* make(KTPoolSide<Numbered>* pool) {
    mayFail();
    ++Numbered::alive;
    return new Numbered(pool);
  }
  static u64 cost(const Numbered& entry) { return entry.capacity + kOverhead; }
  static void prepare(Numbered& entry, u32 size) {
    if (size <= entry.capacity) return;
    entry.capacity = 0;  // As a block is left when the new bytes can't be had.
    mayFail();
    entry.capacity = size;
  }
};

namespace {

using Pool = KTPool<Numbered>;

struct Item {
  int number;
  u32 capacity;
  u64 cost() const { return capacity + kOverhead; }
};

struct OutOfMemory {};

// The rules, with lists of numbers in place of entries.
struct Model {
  struct Thread {
    bool hasCache = false;
    std::deque<Item> list;
    i32 outstanding = 0;
    KTPoolStats stats;
  };

  explicit Model(const KTPoolSettings& s) : settings(s) { updateMarks(); }

  void updateMarks() {
    c.averageSize = settings.maxEntrySize;
    if (c.taken.count > 0 && c.taken.bytes / c.taken.count > 0) {
      c.averageSize = static_cast<u32>(c.taken.bytes / c.taken.count);
    }
    const u32 limit = std::min(settings.maxEntries, settings.maxBytes / c.averageSize);
    const u32 threads = c.cacheCount > 1 ? c.cacheCount : 1;
    low = ((settings.lowShare * limit) >> 10) / threads;
    high = limit / threads;
    for (; free.size() > limit; free.pop_front()) {
      c.free.subtract(free.front().cost());
      c.destroy.add(free.front().cost());
      --alive;
    }
  }

  void merge(Thread& t) {
    c.totals += t.stats;
    t.stats = {};
    updateMarks();
  }

  void mayFail() {
    if (failing >= 0 && failing-- == 0) throw OutOfMemory();
  }

  // First all objects, then the bytes of each.
  Item make(u32 size, u32 number, Thread* t) {
    int next = made;
    for (u32 left = number; left > 0; --left, ++made) mayFail();
    for (;; ++next) {
      if (size > 0) mayFail();
      ++alive;
      const Item item{next, size};
      if (t) t->stats.alloc.add(item.cost());
      if (next == made - 1) return item;
      append(*t, item);
    }
  }

  Item hit(Thread& t, u32 size) {
    Item& head = t.list.front();
    t.stats.cached.subtract(head.cost());
    if (size > head.capacity) {
      head.capacity = 0;
      try {
        mayFail();
      } catch (const OutOfMemory&) {
        t.stats.cached.add(head.cost());
        throw;
      }
      head.capacity = size;
    }
    t.stats.hits.add(u64{size} + 3);
    const Item item = head;
    t.list.pop_front();
    return item;
  }

  void append(Thread& t, const Item& item) {
    t.list.push_back(item);
    t.stats.cached.add(item.cost());
  }

  void makeCache(Thread& t) {
    if (!t.hasCache) ++c.cacheCount;
    t.hasCache = true;
  }

  Item acquire(Thread& t, u32 size) {
    makeCache(t);
    const u32 lowNow = low, highNow = high;
    if (size > settings.maxEntrySize) {
      const Item item = make(size, 1, &t);
      t.stats.oversizeAlloc.add(item.cost());
      return item;
    }
    ++t.outstanding;
    try {
      if (!t.list.empty()) {
        const Item item = hit(t, size);
        if (t.stats.hits.count > settings.syncInterval) merge(t);
        return item;
      }
      const u32 want = t.outstanding > 0 ? static_cast<u32>(t.outstanding) * 2 : lowNow;
      const u32 take = std::min(want, highNow);
      merge(t);
      for (u32 moved = 0; moved < take && !free.empty(); ++moved, free.pop_front()) {
        t.list.push_back(free.front());
        c.free.subtract(free.front().cost());
        c.totals.cached.add(free.front().cost());
        c.taken.add(free.front().cost());
      }
      if (!t.list.empty()) return hit(t, size);
      return make(size, std::max(take, 1u), &t);
    } catch (const OutOfMemory&) {
      --t.outstanding;
      throw;
    }
  }

  void recycle(Thread& t, const Item& item) {
    makeCache(t);
    const u32 highNow = high;
    if (item.cost() > settings.maxEntrySize) {
      t.stats.oversizeFree.add(item.cost());
      t.stats.destroy.add(item.cost());
      --alive;
      return;
    }
    --t.outstanding;
    append(t, item);
    if (t.list.size() > highNow) {
      giveBack(t);
    } else if (t.stats.hits.count > settings.syncInterval) {
      merge(t);
    }
  }

  void giveBack(Thread& t) {
    merge(t);
    for (; !t.list.empty(); t.list.pop_front()) {
      free.push_back(t.list.front());
      c.totals.cached.subtract(free.back().cost());
      c.returned.add(free.back().cost());
      c.free.add(free.back().cost());
    }
  }

  void end(Thread& t) {
    if (!t.hasCache) return;
    --c.cacheCount;
    giveBack(t);
    t = {};
  }

  // A thread whose slot another pool has.
  Item acquireDirectly(u32 size) {
    const Item item = make(size, 1, nullptr);
    c.directAlloc.add(item.cost());
    if (item.cost() > settings.maxEntrySize) c.oversizeAlloc.add(item.cost());
    return item;
  }
  void recycleDirectly(const Item& item) {
    c.destroy.add(item.cost());
    if (item.cost() > settings.maxEntrySize) c.oversizeFree.add(item.cost());
    --alive;
  }

  const KTPoolSettings settings;
  KTPoolCounters c;
  u32 low = 0, high = 0;
  std::deque<Item> free;
  int made = 0, alive = 0, failing = -1;
};

// A thread that does what it is told, while the test waits.
class Hand {
 public:
  ~Hand() { end(); }

  void run(const std::function<void()>& work) {
    if (!thread_.joinable()) thread_ = std::thread([this] { loop(); });
    work_ = &work;
    asked_.signal();
    done_.wait();
  }

  // The thread tears its slots down and ends; the next `run` starts another one.
  void end() {
    if (!thread_.joinable()) return;
    work_ = nullptr;
    asked_.signal();
    thread_.join();
  }

 private:
  void loop() {
    for (;;) {
      asked_.wait();
      if (!work_) break;
      (*work_)();
      done_.signal();
    }
    slotsTearDown();
  }

  std::thread thread_;
  const std::function<void()>* work_ = nullptr;
  orv::platform::Event asked_, done_;
};

constexpr int kHands = 4;  // The last one never gets a cache.

void compare(const KTPoolSettings& settings, u32 seed) {
  Numbered::made = 0;
  auto pool = std::make_unique<Pool>(settings);
  Pool other(settings);
  Model model(settings);
  Model::Thread threads[kHands];
  std::map<int, Numbered*> live;
  Hand hands[kHands];
  std::mt19937 random(seed);
  const auto pick = [&](u32 bound) { return static_cast<u32>(random() % bound); };

  for (int step = 0; step < 4000; ++step) {
    const u32 who = pick(kHands);
    const bool direct = who == kHands - 1;
    Model::Thread& thread = threads[who];
    const u32 phase = static_cast<u32>(step) / 500 % 2;  // Mostly taking, then mostly releasing.
    const u32 action = pick(100);
    if (direct) hands[who].run([&] { other.threadCache(); });
    if (action < 2) {
      hands[who].end();
      model.end(thread);
    } else if (action < (phase ? 35u : 65u) || live.empty()) {
      const u32 size =
          pick(10) == 0 ? settings.maxEntrySize - kOverhead + pick(2 * kOverhead + 2) : pick(200);
      Numbered::failing = model.failing = pick(20) == 0 ? static_cast<int>(pick(4)) : -1;
      Numbered* got = nullptr;
      hands[who].run([&] {
        try {
          got = pool->acquire(size);
          got->addRef();
        } catch (const std::bad_alloc&) {
        }
      });
      try {
        const Item wanted = direct ? model.acquireDirectly(size) : model.acquire(thread, size);
        ASSERT_NE(nullptr, got) << step;
        ASSERT_EQ(wanted.number, got->number) << step;
        ASSERT_EQ(wanted.capacity, got->capacity) << step;
        ASSERT_EQ(2, got->getRefCount());
        ASSERT_EQ(nullptr, got->nextFree);
        live[got->number] = got;
      } catch (const OutOfMemory&) {
        ASSERT_EQ(nullptr, got) << step;
      }
      Numbered::failing = model.failing = -1;
    } else {
      const auto chosen = std::next(live.begin(), pick(static_cast<u32>(live.size())));
      const Item item{chosen->first, chosen->second->capacity};
      hands[who].run([&] { chosen->second->release(); });
      direct ? model.recycleDirectly(item) : model.recycle(thread, item);
      live.erase(chosen);
    }
    ASSERT_EQ(model.c, pool->counters()) << step;
    ASSERT_EQ(model.low, pool->lowMark()) << step;
    ASSERT_EQ(model.high, pool->highMark()) << step;
    ASSERT_EQ(model.alive, Numbered::alive) << step;
    if (!thread.hasCache) continue;
    hands[who].run([&] {
      EXPECT_EQ(thread.outstanding, pool->threadCache()->outstanding());
      EXPECT_EQ(thread.list.size(), pool->threadCache()->count());
    });
  }
  for (const auto& entry : live) hands[0].run([&] { entry.second->release(); });
  for (Hand& hand : hands) hand.end();
  const KTPoolCounters end = pool->counters();
  EXPECT_EQ(KTPoolTally{}, end.totals.cached);
  EXPECT_EQ(end.free.count + end.totals.destroy.count + end.destroy.count,
            end.totals.alloc.count + end.directAlloc.count);
  pool.reset();
  EXPECT_EQ(0, Numbered::alive);
}

TEST(KTPoolModel, agreesOverRandomOperations) {
  const struct {
    const char* name;
    KTPoolSettings settings;
  } kCases[] = {
      {"roomy", {2, 250, 200, 40'000, 256, 20}},
      {"few entries", {2, 250, 9, 40'000, 512, 5}},
      {"few bytes", {2, 250, 200, 1'500, 300, 3}},
      {"no room at all", {2, 250, 0, 40'000, 1024, 4}},
      {"one entry", {2, 250, 3, 400, 1024, 0}},
      {"share that wraps", {2, 250, 200, 40'000, 0xFFFFFFFF, 50}},
  };
  for (const auto& c : kCases) {
    for (u32 seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(testing::Message() << c.name << ", seed " << seed);
      compare(c.settings, seed);
      if (HasFatalFailure()) return;
    }
  }
}

}  // namespace
