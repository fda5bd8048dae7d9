// The base library under everything at once, for as many seconds as the first argument says (default 120):
// host threads and threads of the library come and go, fibers wait, blocks and texts go round, locks are
// contended, allocations fail, and the process forks in the middle of it. At the end all sums hold and
// nothing is left. Prints one line and ends with 0; with the first thing that was wrong and 1 otherwise.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>

#include "platform/Clock.h"
#include "platform/Sanitizers.h"
#include "support/HeapWatch.h"
#include "support/Random.h"
#include "support/Threads.h"
#include "util/KTPool.h"
#include "util/KTString.h"
#include "util/KTThreads.h"
#include "util/KTWideString.h"
#include "util/ORVFiberPool.h"
#include "util/ORVThreadUtils.h"

namespace {

using orv::test::await;
using orv::test::HeapWatch;
using orv::test::Random;

// The sanitizers don't support threads in a forked child, and their allocators may hold a lock across the
// fork that nobody gives back there: a child of theirs takes locks alone.
#if defined(ORV_ASAN) || defined(ORV_TSAN)
constexpr bool kWholeChild = false;
#else
constexpr bool kWholeChild = true;
#endif
constexpr int kHosts = 4;
constexpr u32 kFibers = 24;
constexpr u32 kMutexes = 3;
constexpr unsigned kSecondsForChild = 60;

void check(bool holds, const char* what) {
  if (holds) return;
  std::printf("FAILED: %s\n", what);
  std::fflush(stdout);
  std::_Exit(1);
}

// A number that only the holder of the lock changes.
template <class Lock>
struct Guarded {
  template <class... Arguments>
  explicit Guarded(Arguments... arguments) : lock(arguments...) {}
  void raise() {
    const KTMutexGuard guard(lock);
    ++value;
    ++raised;
  }
  Lock lock;
  u64 value = 0;  // Under the lock.
  std::atomic<u64> raised{0};
};

struct World {
  KTPool<KTMemory> blocks{{.threadSlot = 0,
                           .maxEntrySize = 8192,
                           .maxEntries = 256,
                           .maxBytes = 1 << 20,
                           .lowShare = 128,
                           .syncInterval = 64}};
  Guarded<KTFiberMutex> numbers[kMutexes];
  Guarded<KTThreadOnlyMutex> plain{true};
  orv::util::ReadWriteLock twins;
  u64 first = 0, second = 0;  // Under `twins`.
  std::mutex roundMutex;
  KTMemoryPtr round[16];  // Under roundMutex.
  ORVFiberPool fibers{kFibers};
  std::atomic<u64> works{0};   // Given to fibers and threads of the library,
  std::atomic<u64> worked{0};  // and done.
  std::atomic<u64> actions{0};
};

u32 raiseAll(void* raw) {
  auto& world = *static_cast<World*>(raw);
  for (auto& number : world.numbers) {
    const KTMutexGuard outer(number.lock);
    number.raise();
  }
  ++world.worked;
  return 0;
}

void useFiber(World& world) {
  const ORVFiberPtr fiber = world.fibers.acquire();
  if (!fiber) return;
  ++world.works;
  if (fiber->run(raiseAll, &world)) return;
  --world.works;  // No memory for the thread's own fiber.
  world.fibers.recycle(fiber);
}

void useLibraryThread(World& world, u32 options) {
  ++world.works;
  const u32 id = startThread(raiseAll, &world, options);
  if (id == 0) --world.works;
  setUserValues(id, 1, 2);  // Of a thread that may have ended.
}

void useTwins(World& world, bool write) {
  if (write) {
    world.twins.lockWrite();
    ++world.first;
    ++world.second;
    world.twins.unlockWrite();
  } else {
    world.twins.lockRead();
    check(world.first == world.second, "a reader sees no half written pair");
    world.twins.unlockRead();
  }
}

void useBlocks(World& world, Random& random) {
  const u32 size = 1 + random.below(9000);
  const KTMemoryPtr block(size, &world.blocks);
  block->data[0] = block->data[size - 1] = static_cast<u8>(size);
  block->length.store(static_cast<i32>(size));
  const std::lock_guard guard(world.roundMutex);
  KTMemoryPtr& place = world.round[random.below(16)];
  if (place) check(place->data[0] == place->data[place->length.read() - 1], "a block keeps its bytes");
  place = block;
}

void useStrings(Random& random) {
  const char letters[] = {static_cast<char>('a' + random.below(5)), static_cast<char>('a' + random.below(5)),
                          0};
  const KTString first(letters), second(letters);
  check(first.c_str() == second.c_str(), "a pooled text stands once");
  KTString sum = first + "tail";
  for (u32 left = random.below(20); left > 0; --left) sum += letters;
  check(toNarrow(toWide(sum)) == sum && sum.left(2) == first, "texts convert there and back");
  if (random.oneIn(200)) KTStringPool::instance().sweep();
}

void failAllocations(World& world, Random& random) {
  HeapWatch heap;
  heap.failAt(1 + random.below(6));
  try {
    useStrings(random);
    const KTMemoryPtr block(random.below(9000), &world.blocks);
    for (auto& number : world.numbers) number.raise();
    useFiber(world);
  } catch (const std::bad_alloc&) {
  }
}

void actOnce(World& world, Random& random);

void comeAndGo(World& world, u32 seed, bool tidy) {
  std::thread([&world, seed, tidy] {
    Random random(seed);
    const auto live = [&] {
      for (int i = 0; i < 5; ++i) actOnce(world, random);
    };
    if (!tidy) return live();
    const ThreadSlotsGuard guard;
    live();
  }).join();
}

// What the one thread of a forked child can do.
void actAlone(World& world, Random& random) {
  if (kWholeChild) {
    useBlocks(world, random);
    useStrings(random);
  }
  KTFiberMutex own;
  const KTMutexGuard guard(own);
}

void actOnce(World& world, Random& random) {
  ++world.actions;
  static constexpr void (*kActs[])(World&, Random&) = {
      [](World& w, Random&) { useFiber(w); },
      [](World& w, Random& r) { useTwins(w, r.oneIn(4)); },
      [](World&, Random& r) { useStrings(r); },
      [](World& w, Random&) { w.plain.raise(); },
      failAllocations,
      [](World& w, Random& r) { r.oneIn(20) ? useLibraryThread(w, r.below(2)) : void(); },
      [](World& w, Random& r) { r.oneIn(20) ? comeAndGo(w, r(), r.oneIn(2)) : void(); },
      [](World& w, Random& r) { w.numbers[r.below(kMutexes)].raise(); },
      useBlocks,
      useBlocks,
  };
  kActs[random.below(std::size(kActs))](world, random);
}

// The child knows nothing of what the other threads held, so it keeps to what is its own or the library's.
void forkOnce(World& world, u32 seed) {
  world.numbers[0].raise();  // Allocates what the thread's locks need, before the child can't.
  std::unique_lock guard(world.roundMutex);
  const pid_t child = fork();
  if (child == 0) {
    alarm(kSecondsForChild);
    guard.unlock();
    Random random(seed);
    for (int i = 0; i < 50; ++i) {
      actAlone(world, random);
      if (kWholeChild && i % 10 == 0) std::thread([&] { actAlone(world, random); }).join();
    }
    std::_Exit(0);
  }
  guard.unlock();
  int status = 0;
  check(child > 0 && waitpid(child, &status, 0) == child, "the process forks");
  check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "a forked child works and ends");
}

void checkTheEnd(World& world) {
  await([&] { return world.works == world.worked && runningThreadCount() == 0; });
  check(!world.fibers.stop() && world.fibers.activeCount() == 0, "all fibers come home");
  for (auto& number : world.numbers) check(number.value == number.raised, "a fiber mutex excludes");
  check(world.plain.value == world.plain.raised, "a thread mutex excludes");
  for (KTMemoryPtr& place : world.round) place = nullptr;
  slotsTearDown();
  slotsCollect();
  const KTPoolCounters c = world.blocks.counters();
  check(c.cacheCount == 0 && c.totals.cached == KTPoolTally{}, "all blocks are back in the pool");
  check(c.totals.alloc.count + c.directAlloc.count == c.totals.destroy.count + c.destroy.count + c.free.count,
        "the pool's books are even");
  KTStringPool::instance().sweep();
  for (i32 length = 1; length <= KTStringPool::instance().limit(); ++length)
    check(KTStringPool::instance().counts<char>(length).pooledCharacters == 0, "no text is left in the pool");
}

}  // namespace

int main(int argc, char** argv) {
  setenv("ORV_STRING_POOL", "8", 1);
  const u64 seconds = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 120;
  const u64 end = orv::platform::steadyMilliseconds() + seconds * 1000;
  u32 forks = 0;
  {
    World world;
    std::jthread hosts([&] {
      orv::test::onThreads(kHosts, [&](int i) {
        const ThreadSlotsGuard guard;
        Random random(static_cast<u32>(i));
        while (orv::platform::steadyMilliseconds() < end) actOnce(world, random);
      });
    });
    for (; orv::platform::steadyMilliseconds() < end; ++forks) {
      forkOnce(world, forks);
      orv::util::sleepMilliseconds(20);
    }
    hosts.join();
    checkTheEnd(world);
    std::printf("base library: %llu s, %llu actions, %llu works on fibers and threads, %u forks: all even\n",
                static_cast<unsigned long long>(seconds), static_cast<unsigned long long>(world.actions),
                static_cast<unsigned long long>(world.worked), forks);
  }
  check(ORVFiber::aliveCount() == 0, "no fiber is left");
  slotsTearDown();
  slotsCollect();
  check(slotOwnersForTest() == 0, "no thread's slots are left");
  return 0;
}
