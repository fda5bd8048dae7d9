// Forks in the middle of everything, the string pool included: the child has one thread, and all works there.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <optional>
#include <string>

#include "platform/Sanitizers.h"
#include "support/Threads.h"
#include "util/KTFiberMutex.h"
#include "util/KTPool.h"
#include "util/KTString.h"
#include "util/KTThreads.h"
#include "util/ThreadSlots.h"

namespace {

using orv::test::await;
using orv::test::onThreads;
namespace platform = orv::platform;

// The thread sanitizer ends a process that starts a thread in the child of a fork with threads. The address
// sanitizer's allocator holds its locks across such a fork, and whatever allocates in the child may hang, as
// plain programs do. The release and debug builds try both.
#if defined(ORV_ASAN) || defined(ORV_TSAN)
constexpr bool kThreadsComeAndGo = false;
#else
constexpr bool kThreadsComeAndGo = true;
#endif

constexpr unsigned kSecondsForChild = 60;

// What the child answers: 0, or the number of the check that failed, or -1 when it hung or died.
template <class Body>
int inChild(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(kSecondsForChild);
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

u32 doNothing(void*) {
  return 0;
}

TEST(Fork, leavesTheThreadWhatItHasUnderItsNewNumber) {
  KTFiberMutex mutex;
  platform::CriticalSection section;
  EXPECT_EQ(static_cast<u32>(gettid()), platform::currentThreadId());
  const platform::ThreadToken token = platform::currentThreadToken();
  const KTMutexGuard guard(mutex);
  const platform::SectionGuard sectionGuard(section);
  void* const worker = slotGet(kSlotWorker);
  EXPECT_EQ(0, inChild([&] {
              if (platform::currentThreadId() != static_cast<u32>(gettid())) return 1;
              if (platform::currentThreadToken() != token || !section.isHeldByCaller()) return 2;
              const platform::SectionGuard again(section);
              mutex.lock();
              for (int i = 0; i < 2; ++i) mutex.unlock();
              if (!kThreadsComeAndGo) return 0;
              // The slots of ended threads are freed, and its own are none of them.
              for (int i = 0; i < 5; ++i) std::thread([] { KTFiberMutex().lock(); }).join();
              slotsCollect();
              return slotOwnersForTest() >= 1 && slotGet(kSlotWorker) == worker && mutex.lock() ? 0 : 3;
            }));
}

// The line holds a thread that the child doesn't have: the mutex goes to nobody, and stays usable.
TEST(Fork, leavesAMutexToTheThreadsThatTheChildHas) {
  KTFiberMutex mutex;
  std::optional<KTMutexGuard> guard(mutex);
  const std::jthread waiter([&] { const KTMutexGuard waits(mutex); });
  await([&] { return mutex.waitersForTest() == 1; });
  EXPECT_EQ(0, inChild([&] {
              mutex.unlock();
              if (!kThreadsComeAndGo) return mutex.lock() ? 0 : 1;
              std::thread([&] { const KTMutexGuard takesIt(mutex); }).join();
              return 0;
            }));
  guard.reset();
}

TEST(Fork, leavesTheRegistryTheThreadsThatTheChildHas) {
  if (!kThreadsComeAndGo) GTEST_SKIP() << "the sanitizers can't start threads in a forked child";
  std::latch over(1);
  const auto waitForEnd = [](void* latch) -> u32 { return static_cast<std::latch*>(latch)->wait(), 0; };
  ASSERT_NE(0u, startThread(waitForEnd, &over, 0));
  await([] { return runningThreadCount() == 1; });
  EXPECT_EQ(0, inChild([] {
              if (runningThreadCount() != 0) return 1;
              const u32 id = startThread(doNothing, nullptr, 0);
              setUserValues(id, 1, 2);
              await([] { return runningThreadCount() == 0; });
              return 0;
            }));
  over.count_down();
  await([] { return runningThreadCount() == 0; });
}

TEST(Fork, findsNoLockOfTheLibraryHeldByWhoIsNotThere) {
#ifdef ORV_ASAN
  GTEST_SKIP()
      << "the address sanitizer's allocator holds locks across a fork, and the child hangs in malloc";
#endif
  constexpr KTPoolSettings kSettings{.threadSlot = 2,
                                     .maxEntrySize = 4096,
                                     .maxEntries = 4,
                                     .maxBytes = 1 << 20,
                                     .lowShare = 128,
                                     .syncInterval = 0};
  constexpr int kForks = 40, kThreads = 3;
  KTPool<KTMemory> pool(kSettings);
  KTFiberMutex mutex;
  const auto useAll = [&] {
    { const KTMutexGuard guard(mutex); }
    KTFiberMutex another;
    another.lock();
    another.unlock();
    const KTMemoryPtr block(100, &pool);
    const KTString pooled("pooled"), again("pooled");
    return pooled.c_str() == again.c_str();
  };
  useAll();
  std::atomic<bool> done{false};
  std::jthread busy([&] {
    onThreads(kThreads, [&](int i) {
      while (!done) {
        useAll();
        if (!kThreadsComeAndGo || i > 0) continue;
        std::thread([&] {
          useAll();
          slotsTearDown();
        }).join();
      }
      slotsTearDown();
    });
  });
  for (int i = 0; i < kForks; ++i) {
    const KTMutexGuard guard(mutex);  // Else another thread may hold it, and holds it then in the child.
    EXPECT_EQ(0, inChild([&] {
                for (int round = 0; round < 30; ++round) {
                  if (!useAll()) return 1;
                  if (kThreadsComeAndGo) std::thread([&] { KTFiberMutex().lock(); }).join();
                }
                return 0;
              }))
        << i;
  }
  done = true;
}

}  // namespace
