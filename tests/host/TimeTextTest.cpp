#include "host/text/TimeText.h"

#include <gtest/gtest.h>

#include "host/text/Console.h"

namespace orv::host {
namespace {

TEST(TimeText, readsTheWaysInWhichTimesAreWritten) {
  const struct {
    const char* text;
    u32 time;
  } kTimes[] = {
      {"0", 0},
      {"12.5", 12500},
      {"12.5s", 12500},
      {"500ms", 500},
      {"1.0009", 1000},
      {"5.038000", 5038},
      {"007", 7000},
      {"1:02:03.250", 3723250},
      {"90:00", 5400000},
      {"00:59.9", 59900},
      {"4294967.295", 4294967295},
      {"4294967295ms", 4294967295},
      {"1193:02:47.295", 4294967295},
  };
  for (const auto& time : kTimes) EXPECT_EQ(parseTime(time.text), time.time) << time.text;

  for (const char* text : {"4294967.296", "99999999999999999999", "", "-1", ".5", "5.", "1:60", "1:60:00",
                           "1:2:3:4", "1:", ":30", "1:30s", "1:30ms", "5 s", "5m", "1e3"}) {
    EXPECT_EQ(parseTime(text), std::nullopt) << text;
  }
}

TEST(TimeText, writesHoursToMilliseconds) {
  EXPECT_EQ(timeText(0), "00:00:00.000");
  EXPECT_EQ(timeText(3723250), "01:02:03.250");
  EXPECT_EQ(timeText(4294967295), "1193:02:47.295");
}

TEST(Progress, showsShareRateAndTimeLeft) {
  using std::chrono::milliseconds;
  constexpr i64 kMiB = 1 << 20;
  EXPECT_EQ(shareText(42 * kMiB, 100 * kMiB, milliseconds(2000)), "42%  21 MiB/s  0:03 left");
  EXPECT_EQ(shareText(kMiB, 1000 * kMiB, milliseconds(1000)), "0%  1 MiB/s  16:39 left");
  EXPECT_EQ(shareText(kMiB, 0, milliseconds(1000)), "1 MiB/s");
  EXPECT_EQ(shareText(0, kMiB, milliseconds(0)), "0 MiB/s");
}

}  // namespace
}  // namespace orv::host
