#include "MetadataClaims.h"

#include <fmt/format.h>

#include <cmath>

#include "FlvNames.h"
#include "TimeText.h"
#include "server/KTCommand.h"
#include "util/KTThrowable.h"

namespace orv::host {

namespace {

constexpr double kDurationTolerance = 0.5;  // Seconds.

std::optional<double> numberOf(const KTData& value) {
  if (value.type() != KTData::Number) return std::nullopt;
  return value.toDouble();
}

// What isn't a number.
std::string otherText(const KTData& value) {
  return value.type() == KTData::String ? fmt::format("\"{}\"", value.text()) : value.typeName();
}

std::string secondsText(double seconds) {
  const double ms = std::round(seconds * 1000.0);
  return ms >= 0 && ms < 4294967296.0 ? timeText(static_cast<u32>(ms)) : fmt::format("{} s", seconds);
}

std::string codecName(const char* name, double id) {
  return name ? name : fmt::format("codec {}", id);
}

u32 asId(double number) {
  return number >= 0 && number < 256 ? static_cast<u32>(number) : 256;
}

Claim durationClaim(const KTData& value, u32 duration) {
  Claim claim{"duration", numberOf(value), duration / 1000.0, false, otherText(value), timeText(duration)};
  if (!claim.claimed) return claim;
  claim.agrees = std::abs(*claim.claimed - *claim.actual) <= kDurationTolerance;
  claim.claimedText = secondsText(*claim.claimed);
  return claim;
}

Claim sizeClaim(const KTData& value, i64 size) {
  const auto actual = static_cast<double>(size);
  Claim claim{"filesize", numberOf(value), actual, false, otherText(value), fmt::format("{} bytes", size)};
  if (!claim.claimed) return claim;
  claim.agrees = *claim.claimed == actual;
  claim.claimedText = fmt::format("{} bytes", *claim.claimed);
  return claim;
}

Claim codecClaim(const char* key, const KTData& value, std::optional<u32> actual,
                 const char* (*nameOf)(u32)) {
  Claim claim{key, numberOf(value), {}, false, otherText(value), "none"};
  if (actual) {
    claim.actual = *actual;
    claim.actualText = codecName(nameOf(*actual), *actual);
  }
  if (!claim.claimed) return claim;
  claim.agrees = claim.claimed == claim.actual;
  claim.claimedText = codecName(nameOf(asId(*claim.claimed)), *claim.claimed);
  return claim;
}

}  // namespace

std::vector<Claim> claimsOf(const Tag& metadata, const TagFacts& facts) try {
  const KTCommand command(metadata.plainType(), metadata.data, metadata.size, false);
  const KTDataArray* const array = command.arg(0).asArray();
  std::vector<Claim> claims;
  const auto add = [&](const char* key, auto makeClaim) {
    const KTData& value = array->find(key);
    if (value.type() != KTData::Undefined) claims.push_back(makeClaim(value));
  };
  if (!array) return claims;
  add("duration", [&](const KTData& value) { return durationClaim(value, facts.duration); });
  add("filesize", [&](const KTData& value) { return sizeClaim(value, facts.fileSize); });
  add("videocodecid", [&](const KTData& value) {
    return codecClaim("videocodecid", value, facts.videoCodec, videoCodecName);
  });
  add("audiocodecid", [&](const KTData& value) {
    return codecClaim("audiocodecid", value, facts.audioCodec, audioCodecName);
  });
  return claims;
} catch (const KTBreakConnection&) {
  return {};
}

}  // namespace orv::host
