#include "host/text/TimeText.h"

#include <fmt/format.h>

namespace orv::host {

namespace {

constexpr u32 kSecond = 1000;
constexpr u64 kTooMuch = u64{1} << 32;

// Takes the digits at the front of `text`. None where there is none; a number too big for a time saturates.
std::optional<u64> takeNumber(std::string_view& text) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return std::nullopt;
  u64 value = 0;
  while (!text.empty() && text[0] >= '0' && text[0] <= '9') {
    value = std::min(value * 10 + static_cast<u64>(text[0] - '0'), kTooMuch);
    text.remove_prefix(1);
  }
  return value;
}

// Takes "[.digits]" and gives its first three digits in thousandths; none where a point has no digit behind.
std::optional<u64> takeThousandths(std::string_view& text) {
  if (text.empty() || text[0] != '.') return 0;
  text.remove_prefix(1);
  const std::string_view digits = text;
  if (!takeNumber(text)) return std::nullopt;
  u64 value = 0;
  for (std::size_t i = 0; i < 3; ++i) {
    const bool given = i < digits.size() - text.size();
    value = value * 10 + (given ? static_cast<u64>(digits[i] - '0') : 0);
  }
  return value;
}

}  // namespace

std::optional<u32> parseTime(std::string_view text) {
  std::optional<u64> part = takeNumber(text);
  if (!part) return std::nullopt;
  u64 whole = *part;
  int colons = 0;
  for (; !text.empty() && text[0] == ':'; ++colons) {
    text.remove_prefix(1);
    part = takeNumber(text);
    if (!part || *part >= 60 || colons == 2) return std::nullopt;
    whole = whole * 60 + *part;
  }
  const std::optional<u64> thousandths = takeThousandths(text);
  if (!thousandths) return std::nullopt;

  u64 time = whole * kSecond + *thousandths;
  if (colons == 0 && text == "ms") {
    time = whole;
  } else if (!text.empty() && (colons > 0 || text != "s")) {
    return std::nullopt;
  }
  if (time >= kTooMuch) return std::nullopt;
  return static_cast<u32>(time);
}

std::string timeText(u32 time) {
  const u32 seconds = time / kSecond;
  return fmt::format("{:02}:{:02}:{:02}.{:03}", seconds / 3600, seconds / 60 % 60, seconds % 60,
                     time % kSecond);
}

}  // namespace orv::host
