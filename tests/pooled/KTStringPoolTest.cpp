// The string pool, in a program of its own: its limit is read once, at the first use in the process.

#include "util/KTStringPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "support/Threads.h"
#include "util/KTWideString.h"

namespace {

// Before main, and not where a parent has set it.
const int kPoolOn = setenv("ORV_STRING_POOL", "8", 0);

KTStringPool& pool() {
  return KTStringPool::instance();
}

TEST(KTStringPool, sharesTextsUpToTheLimit) {
  ASSERT_EQ(0, kPoolOn);
  KTString c("other");
  const KTString a("abc"), b("abc"), longest("12345678"), tooLong("123456789");
  c = a;
  EXPECT_EQ(a.c_str(), b.c_str());
  EXPECT_EQ(a.c_str(), c.c_str());
  EXPECT_EQ(KTStringPool::kPooled, KTStringPool::kind(longest.c_str()));
  EXPECT_EQ(KTStringPool::kPrivate, KTStringPool::kind(tooLong.c_str()));
  EXPECT_EQ(KTStringPool::kEmpty, KTStringPool::kind(KTString("").c_str()));
  EXPECT_TRUE(a == b && a != KTString("abd") && longest != tooLong);
  EXPECT_EQ(KTWideString(u"abc").c_str(), toWide(a).c_str());

  KTString joined = a + "";  // Private, with the text of a pooled one.
  EXPECT_NE(a.c_str(), joined.c_str());
  EXPECT_EQ(a, joined);
  KTString changed(a);
  EXPECT_STREQ("abcd", (changed += "d").c_str());
  changed = "%41%42";
  EXPECT_STREQ("AB", changed.urlDecode().c_str());
  EXPECT_STREQ("abc", a.c_str());
  EXPECT_EQ("%41%42", KTString("%41%42"));
}

TEST(KTStringPool, countsAndSweeps) {
  pool().sweep();
  const KTStringPoolCounts start = pool().counts<char>(5);
  {
    const KTString kept("keep!");
    { const KTString one("gone!"), two("gone!"); }
    const KTString back("gone!");  // Its block was still there.
    KTStringPoolCounts now = pool().counts<char>(5);
    EXPECT_EQ(start.misses + 2, now.misses);
    EXPECT_EQ(start.hits + 2, now.hits);
    EXPECT_EQ(10u, now.pooledCharacters);
    EXPECT_EQ(0, pool().sweep());
    EXPECT_STREQ("gone!", back.c_str());
  }
  const KTWideString wide(u"w");
  EXPECT_EQ(10, pool().sweep());
  EXPECT_EQ(0u, pool().counts<char>(5).pooledCharacters);
  EXPECT_EQ(1u, pool().counts<char16_t>(1).pooledCharacters);
  EXPECT_EQ(0u, pool().counts<char>(9).misses);
}

// Threads make, share and drop the same few texts while others sweep: no text is lost, none is made twice at
// a time.
TEST(KTStringPool, holdsUnderContention) {
  pool().sweep();
  const u64 before = pool().counts<char>(2).hits + pool().counts<char>(2).misses;
  constexpr int kUsers = 3, kRounds = 4000;
  std::atomic<bool> done{false};
  std::thread sweeper([&] {
    while (!done) pool().sweep();
  });
  orv::test::onThreads(kUsers, [](int user) {
    for (int i = 0; i < kRounds; ++i) {
      const char text[] = {'k', static_cast<char>('a' + (i + user) % 3), 0};
      const KTString first(text), second(text), wideBack(toNarrow(toWide(first)));
      if (first.c_str() != second.c_str() || first != wideBack || second != text) std::abort();
    }
  });
  done = true;
  sweeper.join();
  const KTStringPoolCounts counts = pool().counts<char>(2);
  EXPECT_EQ(before + u64{3} * kUsers * kRounds, counts.hits + counts.misses);
  pool().sweep();
  EXPECT_EQ(0u, pool().counts<char>(2).pooledCharacters);
}

void exitGood(i32 limit) {
  const KTString first("x"), second("x");
  const bool shared = first.c_str() == second.c_str();
  std::exit(pool().limit() == limit && shared == (limit > 0) ? 0 : 1);
}

TEST(KTStringPool, readsItsLimitFromTheEnvironment) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";  // A fresh process for each.
  const struct {
    const char* value;
    i32 limit;
  } kCases[] = {
      {"0", 0}, {"8", 8}, {"-3", 0}, {"12abc", 12}, {"text", 0}, {"", 0}, {"99999999999999999999", 16777215}};
  for (const auto& c : kCases) {
    setenv("ORV_STRING_POOL", c.value, 1);
    EXPECT_EXIT(exitGood(c.limit), testing::ExitedWithCode(0), "") << c.value;
  }
  setenv("ORV_STRING_POOL", "8", 1);
}

}  // namespace
