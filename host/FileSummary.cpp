#include "FileSummary.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "FlvNames.h"
#include "SegmentWalk.h"
#include "TimeText.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

// Sound may set in later than pictures, but hardly later than this.
constexpr int kFrontSegments = 4;

void noteFirstTags(FileSummary& summary, const Tag& tag) {
  std::optional<FileSummary::FirstTag>* const slot = tag.isVideo()   ? &summary.video
                                                     : tag.isAudio() ? &summary.audio
                                                                     : nullptr;
  if (!slot || *slot || tag.size == 0) return;
  const auto id = tag.isEncrypted() ? std::nullopt : std::optional(codecId(tag));
  *slot = {tag.time, codecText(tag), id, isKeyFrame(tag)};
}

// Looks for what the header's flags promise, in the first segment in any case.
void readFront(Stream& stream, FileSummary& summary) {
  SegmentWalk walk(stream);
  for (int i = 0; i < kFrontSegments; ++i) {
    const std::optional<SegmentBounds> bounds = walk.next();
    if (!bounds) return;
    stream.load(*bounds, [&](const Message& message) {
      forEachTag(message, [&](const Tag& tag) { noteFirstTags(summary, tag); });
    });
    const bool videoDue = (summary.typeFlags & kFlagVideo) && !summary.video;
    const bool audioDue = (summary.typeFlags & kFlagAudio) && !summary.audio;
    if (!videoDue && !audioDue) return;
  }
}

TagFacts factsOf(const FileSummary& s) {
  return {s.duration, s.fileSize, s.video ? s.video->codecId : std::nullopt,
          s.audio ? s.audio->codecId : std::nullopt};
}

// The metadata that a server gets.
std::vector<Claim> readClaims(const Stream& stream, const TagFacts& facts) {
  std::vector<Claim> claims;
  stream.headRecords([&](const HeadRecord& record) {
    if (record.trackId == kTrackMetaData) claims = claimsOf(record.tag, facts);
  });
  return claims;
}

std::string claimText(const Claim& claim) {
  const char* const verdict = claim.agrees ? "as the tags say" : "DIFFERS: it is ";
  return fmt::format("{} {}, {}{}", claim.key, claim.claimedText, verdict,
                     claim.agrees ? "" : claim.actualText);
}

Json claimsJson(const std::vector<Claim>& claims) {
  Json json = Json::object();
  for (const Claim& claim : claims) {
    Json& entry = json[claim.key] = {{"claimed", claim.claimedText}};
    if (claim.claimed) entry["claimed"] = *claim.claimed;
    entry["actual"] = claim.actual ? Json(*claim.actual) : Json(nullptr);
    entry["agrees"] = claim.agrees;
  }
  return json;
}

std::string playableText(const FileSummary& s) {
  if (s.endPosition == 0) return s.bytesBehind() == 0 ? "nothing: the file holds no tags" : "nothing";
  if (s.bytesBehind() == 0) return "all of it";
  return fmt::format("to byte {}; {} bytes behind are torn or foreign", s.playableEnd, s.bytesBehind());
}

std::string firstTagText(const FileSummary::FirstTag& tag) {
  return fmt::format("{}, from {}{}", tag.codec, timeText(tag.time), tag.isKeyFrame ? ", key frame" : "");
}

Json firstTagJson(const std::optional<FileSummary::FirstTag>& tag) {
  if (!tag) return nullptr;
  return {{"codec", tag->codec}, {"first", timeJson(tag->time)}, {"keyFrame", tag->isKeyFrame}};
}

Json tallyJson(const PlayTally& tally) {
  Json kinds = Json::array();
  for (const auto& [type, kind] : tally.kinds) {
    kinds.push_back(
        {{"type", type}, {"name", tagTypeName(type)}, {"tags", kind.tags}, {"bytes", kind.bytes}});
  }
  return {{"segments", tally.segments},
          {"damagedSegments", tally.damagedSegments},
          {"messages", tally.messages},
          {"aggregates", tally.aggregates},
          {"kinds", std::move(kinds)}};
}

}  // namespace

FileSummary summarize(Stream& stream, Depth depth) {
  FileSummary summary{};
  summary.name = stream.name();
  summary.fileSize = stream.identity().size;
  summary.playableEnd = stream.size();
  summary.endPosition = stream.endPosition();
  summary.duration = stream.duration();
  summary.typeFlags = stream.typeFlags();
  summary.memoryOverhead = stream.memoryOverhead();
  stream.headRecords([&](const HeadRecord& record) {
    summary.headRecords.push_back({record.trackId, record.tag.size});
  });
  readFront(stream, summary);
  summary.claims = readClaims(stream, factsOf(summary));
  if (depth == Depth::wholeFile) summary.tally = playOut(stream, {}, nullptr, nullptr);
  return summary;
}

std::string summaryText(const FileSummary& s) {
  const auto row = [](const char* name, const std::string& value) {
    return fmt::format("  {:<10}{}\n", name, value);
  };
  std::string text = s.name + "\n";
  text += row("size", fmt::format("{} bytes", s.fileSize));
  text += row("playable", playableText(s));
  text += row("duration", timeText(s.duration));
  text += row("types", fmt::format("{} (flags 0x{:02x})", flagsText(s.typeFlags), s.typeFlags));
  if (s.video) text += row("video", firstTagText(*s.video));
  if (s.audio) text += row("audio", firstTagText(*s.audio));
  for (const FileSummary::Head& head : s.headRecords) {
    text += row("head", fmt::format("{}, {} bytes", headRecordName(head.trackId), head.size));
  }
  for (const Claim& claim : s.claims) text += row("claim", claimText(claim));
  if (!s.tally) return text;
  for (const auto& [type, kind] : s.tally->kinds) {
    text +=
        row("tags", fmt::format("{} {} (type {}), {} bytes", kind.tags, tagTypeName(type), type, kind.bytes));
  }
  return text;
}

Json timeJson(u32 time) {
  return {{"ms", time}, {"text", timeText(time)}};
}

Json boundsJson(const SegmentBounds& b) {
  return {{"startPosition", b.startPosition},
          {"endPosition", b.endPosition},
          {"bytes", b.endPosition - b.startPosition + 1},
          {"startTime", timeJson(b.startTime)},
          {"endTime", timeJson(b.endTime)}};
}

Json summaryJson(const FileSummary& s) {
  Json heads = Json::array();
  for (const FileSummary::Head& head : s.headRecords) {
    heads.push_back(
        {{"name", headRecordName(head.trackId)}, {"trackID", head.trackId}, {"bytes", head.size}});
  }
  Json json = {{"file", s.name},
               {"size", s.fileSize},
               {"playableEnd", s.playableEnd},
               {"endPosition", s.endPosition},
               {"bytesBehind", s.bytesBehind()},
               {"duration", timeJson(s.duration)},
               {"typeFlags", s.typeFlags},
               {"types", flagsText(s.typeFlags)},
               {"video", firstTagJson(s.video)},
               {"audio", firstTagJson(s.audio)},
               {"headRecords", std::move(heads)},
               {"claims", claimsJson(s.claims)},
               {"memoryOverhead", s.memoryOverhead}};
  if (s.tally) json["tags"] = tallyJson(*s.tally);
  return json;
}

std::string jsonText(const Json& document) {
  return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace orv::host
