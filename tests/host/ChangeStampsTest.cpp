#include "ChangeStamps.h"

#include <gtest/gtest.h>

#include <ctime>
#include <functional>

namespace orv::host {
namespace {

// A file that was last changed long ago.
struct stat atRest() {
  struct stat status {};
  status.st_dev = 1;
  status.st_ino = 2;
  status.st_size = 100;
  status.st_mtim = status.st_ctim = {1'000'000'000, 500};
  return status;
}

TEST(ChangeStamps, eachKindOfChangeGivesAnotherStampAndRestGivesTheSame) {
  const struct {
    const char* name;
    std::function<void(struct stat&, ChangeStamps&)> change;
  } kChanges[] = {
      {"modification time", [](struct stat& s, ChangeStamps&) { ++s.st_mtim.tv_nsec; }},
      {"change time", [](struct stat& s, ChangeStamps&) { --s.st_ctim.tv_nsec; }},
      {"size within a tick", [](struct stat& s, ChangeStamps&) { ++s.st_size; }},
      {"own write in place within a tick", [](struct stat&, ChangeStamps& c) { c.noteWrite(1, 2); }},
      {"another file", [](struct stat& s, ChangeStamps&) { ++s.st_ino; }},
      {"another device", [](struct stat& s, ChangeStamps&) { ++s.st_dev; }},
  };
  for (const auto& c : kChanges) {
    ChangeStamps stamps;
    struct stat status = atRest();
    const u32 before = stamps.of(status);
    EXPECT_NE(before, 0u);
    EXPECT_EQ(stamps.of(status), before) << c.name;
    c.change(status, stamps);
    const u32 after = stamps.of(status);
    EXPECT_NE(after, before) << c.name;
    EXPECT_EQ(stamps.of(status), after) << c.name;
  }
}

TEST(ChangeStamps, aStateThatComesBackIsAnotherChange) {
  ChangeStamps stamps;
  struct stat status = atRest();
  const u32 before = stamps.of(status);
  status.st_size = 7;
  stamps.of(status);
  status.st_size = 100;
  EXPECT_NE(stamps.of(status), before);
}

// What another process did in place within the tick of the last look shows once the tick is over.
TEST(ChangeStamps, aFreshChangeIsLookedAtOnceMoreWhenItHasSettled) {
  ChangeStamps stamps;
  struct stat status = atRest();
  clock_gettime(CLOCK_REALTIME, &status.st_ctim);
  const u32 fresh = stamps.of(status);
  u32 now = fresh;
  for (timespec pause{0, 1'000'000}; now == fresh; now = stamps.of(status)) nanosleep(&pause, nullptr);
  EXPECT_EQ(stamps.of(status), now);
}

}  // namespace
}  // namespace orv::host
