#include "host/files/ChangeStamps.h"

#include <gtest/gtest.h>

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
      {"a state that comes back",
       [](struct stat& s, ChangeStamps& c) {
         struct stat other = s;
         other.st_size = 7;
         c.of(other);
       }},
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

// What another process did in place within the tick of the last look shows once the tick is over.
TEST(ChangeStamps, aFreshChangeIsLookedAtOnceMoreWhenItHasSettled) {
  static i64 now;
  ChangeStamps stamps([] { return now; });
  struct stat status = atRest();
  const i64 changed = status.st_ctim.tv_sec * 1'000'000'000 + status.st_ctim.tv_nsec;
  now = changed;
  const u32 fresh = stamps.of(status);
  now = changed + 10'000'000;  // The longest tick.
  EXPECT_EQ(stamps.of(status), fresh);
  now = changed + 20'000'000;
  const u32 settled = stamps.of(status);
  EXPECT_NE(settled, fresh);
  now += 1'000'000'000;
  EXPECT_EQ(stamps.of(status), settled);
}

}  // namespace
}  // namespace orv::host
