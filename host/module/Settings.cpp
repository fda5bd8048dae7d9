#include "host/module/Settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>

#include "host/text/Failure.h"

namespace orv::host {

namespace {

enum class Kind { boolean, integer, size, types, codecs };

constexpr u32 kMostNumber = 0x7FFFFFFF;  // The module reads numbers as 32-bit integers with a sign.
constexpr char kLeastSegment[] = "MinSegSize";
constexpr u32 kLeastSegmentDefault = 0x20000;
constexpr char kSearchLimit[] = "MaxBackFrameScan";
constexpr char kPlaysTorn[] = "PlayIncompleteFLVs";
constexpr u32 kSearchLimitDefault = 0x400000;

struct Known {
  std::string_view key;
  Kind kind;
  u32 least = 0;
  u32 most = kMostNumber;
  bool isAtLeastSegment = false;  // "MinSegSize" is the lower bound.
};

constexpr std::array<Known, 13> kKnown = {{
    {"FrameReserveCheck", Kind::boolean},
    {kPlaysTorn, Kind::boolean},
    {"RetryCorruptedFLVs", Kind::integer},
    {kLeastSegment, Kind::size, kLeastSegmentDefault},
    {"MaxSegSize", Kind::size, 0, kMostNumber, true},
    {"ReadSize", Kind::size, 16384},
    {"MaxFrameScan", Kind::size, 0, 0x1000000, true},
    {kSearchLimit, Kind::size, 0, Settings::kMostSearchLimit, true},
    {"AutoBufferReadSize", Kind::size, 1024},
    {"EnableAggMsgs", Kind::boolean},
    {"MaxAggMsgSize", Kind::size},
    {"FrameTypes", Kind::types},
    {Settings::kRecordCodecs, Kind::codecs},
}};

const Known* find(std::string_view key) {
  const auto* const place =
      std::find_if(kKnown.begin(), kKnown.end(), [&](const Known& k) { return k.key == key; });
  return place == kKnown.end() ? nullptr : place;
}

template <class Number>
std::optional<Number> parse(std::string_view text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

bool isTypeList(std::string_view text) {
  std::size_t count = 0;
  while (!text.empty()) {
    const std::string_view token = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(token.size() + 1, text.size()));
    if (token.empty()) continue;
    if (!parse<u8>(token)) return false;
    ++count;
  }
  return count > 0;
}

// Returns what `value` must be; empty if it is.
std::string refusal(const Known& known, const std::string& value, u32 leastSegment) {
  switch (known.kind) {
    case Kind::boolean:
      return value == "true" || value == "false" ? "" : "true or false";
    case Kind::integer:
      return parse<i32>(value) ? "" : "a number";
    case Kind::types:
      return isTypeList(value) ? "" : "numbers from 0 to 255, separated by blanks";
    case Kind::codecs:
      return value == "all" || value == Settings::kClassic ? "" : "all or classic";
    case Kind::size:
      break;
  }
  const u32 least = known.isAtLeastSegment ? leastSegment : known.least;
  if (least > known.most) return fmt::format("left out while {} is above {}", kLeastSegment, known.most);
  const auto number = parse<u32>(value);
  if (number && *number >= least && *number <= known.most) return "";
  return fmt::format("a number from {} to {}", least, known.most);
}

}  // namespace

void Settings::assign(const std::string& assignment) {
  const std::size_t equals = assignment.find('=');
  if (equals == std::string::npos) throw hostFault("--set " + assignment + ": no \"=\"; give Key=Value");
  const std::string key = assignment.substr(0, equals);
  if (!host::find(key)) {
    std::string keys;
    for (const Known& known : kKnown) keys += fmt::format("{}{}", keys.empty() ? "" : ", ", known.key);
    throw hostFault(fmt::format("--set {}: no such setting; the settings are {}", key, keys));
  }
  values_[key] = assignment.substr(equals + 1);
}

const std::string* Settings::find(const std::string& key) const {
  const auto place = values_.find(key);
  return place == values_.end() ? nullptr : &place->second;
}

u32 Settings::searchLimit() const {
  return number(kSearchLimit, kSearchLimitDefault);
}

void Settings::setSearchLimit(u32 bytes) {
  values_[kSearchLimit] = std::to_string(bytes);
}

bool Settings::playsTorn() const {
  const std::string* const value = find(kPlaysTorn);
  return !value || *value == "true";
}

u32 Settings::number(const std::string& key, u32 otherwise) const {
  const std::string* const text = find(key);
  return text ? parse<u32>(*text).value_or(otherwise) : otherwise;
}

const Settings& Settings::checked() const {
  const u32 leastSegment = number(kLeastSegment, kLeastSegmentDefault);
  for (const Known& known : kKnown) {
    const std::string* const value = find(std::string(known.key));
    const std::string wanted = value ? refusal(known, *value, leastSegment) : "";
    if (!wanted.empty()) throw hostFault(fmt::format("--set {}={}: must be {}", known.key, *value, wanted));
  }
  return *this;
}

}  // namespace orv::host
