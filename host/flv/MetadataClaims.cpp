#include "host/flv/MetadataClaims.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "host/flv/FlvNames.h"
#include "host/text/TimeText.h"
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

// Four characters are claimed as the number that they make.
CodecId asId(double number) {
  return number >= 0 && number < 4294967296.0 ? static_cast<CodecId>(number) : kMaxClassicCodec + 1;
}

Verdict verdictOf(bool agrees) {
  return agrees ? Verdict::agrees : Verdict::differs;
}

Claim durationClaim(const KTData& value, const TagFacts& facts) {
  const double last = facts.duration / 1000.0;
  Claim claim{"duration",       numberOf(value),  last,
              Verdict::differs, otherText(value), timeText(facts.duration)};
  if (!claim.claimed) return claim;
  const double length = last - std::min(facts.firstTime, facts.duration) / 1000.0;
  const double off = std::min(std::abs(*claim.claimed - last), std::abs(*claim.claimed - length));
  claim.verdict = verdictOf(off <= kDurationTolerance);
  claim.claimedText = secondsText(*claim.claimed);
  return claim;
}

Claim sizeClaim(const KTData& value, i64 size) {
  const auto actual = static_cast<double>(size);
  Claim claim{"filesize",       numberOf(value),  actual,
              Verdict::differs, otherText(value), fmt::format("{} bytes", size)};
  if (!claim.claimed) return claim;
  claim.verdict = verdictOf(*claim.claimed == actual);
  claim.claimedText = fmt::format("{} bytes", *claim.claimed);
  return claim;
}

Claim codecClaim(const char* key, const KTData& value, std::optional<u32> actual, bool isComplete,
                 const char* (*nameOf)(u32)) {
  Claim claim{key, numberOf(value), {}, Verdict::differs, otherText(value), "none"};
  if (actual) {
    claim.actual = *actual;
    claim.actualText = codecName(nameOf(*actual), *actual);
  }
  if (claim.claimed) claim.claimedText = codecName(nameOf(asId(*claim.claimed)), *claim.claimed);
  if (claim.claimed && claim.claimed == claim.actual) claim.verdict = Verdict::agrees;
  if (!actual && !isComplete) claim.verdict = Verdict::unknown;
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
  add("duration", [&](const KTData& value) { return durationClaim(value, facts); });
  add("filesize", [&](const KTData& value) { return sizeClaim(value, facts.fileSize); });
  add("videocodecid", [&](const KTData& value) {
    return codecClaim("videocodecid", value, facts.videoCodec, facts.isComplete, videoCodecName);
  });
  add("audiocodecid", [&](const KTData& value) {
    return codecClaim("audiocodecid", value, facts.audioCodec, facts.isComplete, audioCodecName);
  });
  return claims;
} catch (const KTBreakConnection&) {
  return {};
}

}  // namespace orv::host
