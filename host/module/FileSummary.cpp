#include "host/module/FileSummary.h"

#include <fmt/format.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "host/files/ByteProgress.h"
#include "host/files/FileSource.h"
#include "host/files/ModulePath.h"
#include "host/flv/FlvNames.h"
#include "host/flv/Walker.h"
#include "host/module/SegmentWalk.h"
#include "host/text/CountText.h"
#include "host/text/Printable.h"
#include "host/text/TimeText.h"
#include "server/KTCommand.h"
#include "util/KTThrowable.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

// Sound may set in later than pictures, but hardly later than this.
constexpr int kFrontSegments = 4;

// Notes what the tags of a file say, one by one.
class TagNotes {
 public:
  explicit TagNotes(FileSummary& summary) : summary_(summary) {}

  void note(const Tag& tag) {
    std::optional<FileSummary::FirstTag>* const slot = tag.isVideo()   ? &summary_.video
                                                       : tag.isAudio() ? &summary_.audio
                                                                       : nullptr;
    if (!slot || tag.size == 0) return;
    const auto head = mediaHead(tag);
    if (!*slot)
      *slot = {tag.time, codecText(tag), head ? head->codec : std::nullopt, head && head->isKeyFrame};
    if (tag.isVideo() && !(head && head->isSetup())) noteFrame(tag.time);
  }
  void conclude() const {
    if (frames_ < 2 || lastFrame_ <= firstFrame_) return;
    summary_.frameRate = static_cast<double>(frames_ - 1) * 1000.0 / (lastFrame_ - firstFrame_);
  }

 private:
  void noteFrame(u32 time) {
    if (frames_++ == 0) firstFrame_ = lastFrame_ = time;
    lastFrame_ = std::max(lastFrame_, time);
  }

  FileSummary& summary_;
  u64 frames_ = 0;
  u32 firstFrame_ = 0;
  u32 lastFrame_ = 0;
};

// Looks for what the header's flags promise, in the first segment in any case.
void readFront(Stream& stream, FileSummary& summary) {
  SegmentWalk walk(stream);
  TagNotes notes(summary);
  for (int i = 0; i < kFrontSegments; ++i) {
    const std::optional<SegmentBounds> bounds = walk.next();
    if (!bounds) break;
    stream.load(*bounds, [&](const Message& message) {
      forEachTag(message, [&](const Tag& tag) { notes.note(tag); });
    });
    const bool videoDue = (summary.typeFlags & kFlagVideo) && !summary.video;
    const bool audioDue = (summary.typeFlags & kFlagAudio) && !summary.audio;
    if (!videoDue && !audioDue) break;
  }
  notes.conclude();
}

void readAll(FileSummary& summary) {
  FileSource source(summary.name);
  Walker walker(source, Payloads::fronts);
  ByteProgress progress(source);
  TagNotes notes(summary);
  TagCount& count = summary.count.emplace();
  while (const auto step = walker.next()) {
    if (const auto* const walked = std::get_if<WalkedTag>(&*step)) {
      notes.note(walked->tag);
      count.damages += !walked->hasTrueSizeField();
      PlayTally::Kind& kind = count.kinds[walked->tag.type];
      ++kind.tags;
      kind.bytes += walked->tag.size;
    } else {
      count.damages += !std::get<Break>(*step).isTail;
    }
    progress.show(walker.position());
  }
  notes.conclude();
}

// Texts at the head bear a time of 0, wherever the media begin.
u32 firstTimeOf(Stream& stream, const FileSummary& s) {
  if (s.video && s.audio) return std::min(s.video->time, s.audio->time);
  if (s.video || s.audio) return s.video ? s.video->time : s.audio->time;
  const auto first = stream.segmentAtPosition(0);
  return first ? first->startTime : 0;
}

TagFacts factsOf(const FileSummary& s) {
  const auto codecOf = [](const auto& tag) { return tag ? tag->codecId : std::nullopt; };
  return {s.firstTime, s.duration, s.fileSize, codecOf(s.video), codecOf(s.audio), s.count.has_value()};
}

std::optional<u32> positiveNumber(const KTDataArray& values, const char* key) {
  const KTData& value = values.find(key);
  if (value.type() != KTData::Number || !(value.toDouble() >= 1) || value.toDouble() > 65535)
    return std::nullopt;
  return static_cast<u32>(value.toDouble());
}

void readPicture(const Tag& metadata, FileSummary& summary) try {
  const KTCommand command(metadata.plainType(), metadata.data, metadata.size, false);
  const KTDataArray* const values = command.arg(0).asArray();
  if (!values) return;
  summary.width = positiveNumber(*values, "width");
  summary.height = positiveNumber(*values, "height");
} catch (const KTBreakConnection&) {
}

// What a server gets.
void readMetadata(const Stream& stream, FileSummary& summary) {
  stream.headRecords([&](const HeadRecord& record) {
    if (record.trackId != kTrackMetaData) return;
    summary.claims = claimsOf(record.tag, factsOf(summary));
    readPicture(record.tag, summary);
  });
}

// A look behind the end at a web server's object isn't worth its requests.
WholeTags hiddenTags(const FileSummary& summary) {
  if (summary.bytesBehind() <= 0 || isRemote(summary.name)) return {0, summary.playableEnd};
  return followTags(ReadOnlyFile(summary.name), summary.playableEnd, summary.fileSize);
}

std::string rateText(double bitsPerSecond) {
  return fmt::format("{:.0f} kbit/s", bitsPerSecond / 1000.0);
}

std::string ratesText(const FileSummary& s) {
  const auto all = s.bitRate(static_cast<u64>(std::max<i64>(s.playableEnd, 0)));
  if (!all) return {};
  std::string text = rateText(*all);
  if (!s.count) return text;
  if (const u64 bytes = s.count->bytesOf(flv::kTypeVideo)) text += ", video " + rateText(*s.bitRate(bytes));
  if (const u64 bytes = s.count->bytesOf(flv::kTypeAudio)) text += ", audio " + rateText(*s.bitRate(bytes));
  return text;
}

std::string pictureText(const FileSummary& s) {
  std::string text = s.width && s.height ? fmt::format("{}x{}", *s.width, *s.height) : "";
  if (s.frameRate) text += fmt::format("{}{:.5g} frames/s", text.empty() ? "" : ", ", *s.frameRate);
  return text;
}

std::string durationText(const FileSummary& s) {
  if (s.firstTime == 0) return timeText(s.duration);
  return fmt::format("{}, from {} to {}", timeText(s.duration - std::min(s.firstTime, s.duration)),
                     timeText(s.firstTime), timeText(s.duration));
}

u32 flagsOf(const TagCount& count) {
  u32 flags = 0;
  for (const auto& [type, kind] : count.kinds) {
    if ((type & flv::kTypeMask) == flv::kTypeAudio) flags |= kFlagAudio;
    if ((type & flv::kTypeMask) == flv::kTypeVideo) flags |= kFlagVideo;
  }
  return flags;
}

std::string typesText(const FileSummary& s) {
  std::string text = fmt::format("{} (flags 0x{:02x})", flagsText(s.typeFlags), s.typeFlags);
  if (!s.count || flagsOf(*s.count) == (s.typeFlags & (kFlagAudio | kFlagVideo))) return text;
  return text + "; the tags: " + flagsText(flagsOf(*s.count));
}

std::string claimText(const Claim& claim) {
  const std::string verdict = claim.verdict == Verdict::agrees    ? "as the tags say"
                              : claim.verdict == Verdict::differs ? "DIFFERS: it is " + claim.actualText
                                                                  : "of which the first tags say nothing";
  return printable(fmt::format("{} {}, {}", claim.key, claim.claimedText, verdict));
}

Json claimsJson(const std::vector<Claim>& claims) {
  Json json = Json::object();
  for (const Claim& claim : claims) {
    Json& entry = json[claim.key] = {{"claimed", claim.claimedText}};
    if (claim.claimed) entry["claimed"] = *claim.claimed;
    entry["actual"] = claim.actual ? Json(*claim.actual) : Json(nullptr);
    entry["agrees"] =
        claim.verdict == Verdict::unknown ? Json(nullptr) : Json(claim.verdict == Verdict::agrees);
  }
  return json;
}

std::string playableText(const FileSummary& s) {
  if (s.endPosition == 0) return s.bytesBehind() == 0 ? "nothing: the file holds no tags" : "nothing";
  if (s.count && s.count->damages > 0) {
    return fmt::format("to byte {}, but damaged in {}; {} bytes behind", s.playableEnd,
                       countText(s.count->damages, "place"), s.bytesBehind());
  }
  if (s.bytesBehind() == 0) return "all of it";
  if (s.hidden.count == 0) {
    return fmt::format("to byte {}; {} bytes behind are torn or foreign", s.playableEnd, s.bytesBehind());
  }
  return fmt::format("to byte {}; whole to byte {}, {} bytes behind are torn or foreign", s.playableEnd,
                     s.hidden.end, s.fileSize - s.hidden.end);
}

std::string firstTagText(const FileSummary::FirstTag& tag) {
  return fmt::format("{}, from {}{}", tag.codec, timeText(tag.time), tag.isKeyFrame ? ", key frame" : "");
}

Json firstTagJson(const std::optional<FileSummary::FirstTag>& tag) {
  if (!tag) return nullptr;
  return {{"codec", tag->codec}, {"first", timeJson(tag->time)}, {"keyFrame", tag->isKeyFrame}};
}

Json ratesJson(const FileSummary& s) {
  const auto rate = [&](u64 bytes) {
    const auto bits = s.bitRate(bytes);
    return bits ? Json(*bits) : Json(nullptr);
  };
  Json json = {{"all", rate(static_cast<u64>(std::max<i64>(s.playableEnd, 0)))}};
  if (!s.count) return json;
  json["video"] = rate(s.count->bytesOf(flv::kTypeVideo));
  json["audio"] = rate(s.count->bytesOf(flv::kTypeAudio));
  return json;
}

Json countJson(const TagCount& count) {
  Json kinds = Json::array();
  for (const auto& [type, kind] : count.kinds) {
    kinds.push_back(
        {{"type", type}, {"name", tagTypeName(type)}, {"tags", kind.tags}, {"bytes", kind.bytes}});
  }
  return {{"tags", count.tags()}, {"damages", count.damages}, {"kinds", std::move(kinds)}};
}

}  // namespace

u64 TagCount::tags() const {
  u64 sum = 0;
  for (const auto& [type, kind] : kinds) sum += kind.tags;
  return sum;
}

u64 TagCount::bytesOf(u8 plainType) const {
  u64 sum = 0;
  for (const auto& [type, kind] : kinds) {
    if ((type & flv::kTypeMask) == plainType) sum += kind.bytes;
  }
  return sum;
}

std::optional<double> FileSummary::bitRate(u64 bytes) const {
  if (duration <= firstTime) return std::nullopt;
  return static_cast<double>(bytes) * 8 * 1000 / (duration - firstTime);
}

FileSummary summarize(Stream& stream, Depth depth) {
  FileSummary summary{};
  summary.name = stream.name();
  summary.fileSize = stream.identity().size;
  summary.playableEnd = stream.size();
  summary.hidden = hiddenTags(summary);
  summary.endPosition = stream.endPosition();
  summary.duration = stream.duration();
  summary.typeFlags = stream.typeFlags();
  summary.memoryOverhead = stream.memoryOverhead();
  stream.headRecords([&](const HeadRecord& record) {
    summary.headRecords.push_back({record.trackId, record.tag.size});
  });
  if (depth == Depth::wholeFile) {
    readAll(summary);
  } else {
    readFront(stream, summary);
  }
  summary.firstTime = firstTimeOf(stream, summary);
  readMetadata(stream, summary);
  return summary;
}

std::string summaryText(const FileSummary& s) {
  const auto row = [](const char* name, const std::string& value) {
    return fmt::format("  {:<10}{}\n", name, value);
  };
  std::string text = printable(s.name) + "\n";
  text += row("size", fmt::format("{} bytes", s.fileSize));
  text += row("playable", playableText(s));
  text += row("duration", durationText(s));
  text += row("types", typesText(s));
  if (s.video) text += row("video", firstTagText(*s.video));
  if (s.audio) text += row("audio", firstTagText(*s.audio));
  if (const std::string picture = pictureText(s); !picture.empty()) text += row("picture", picture);
  if (const std::string rates = ratesText(s); !rates.empty()) text += row("rate", rates);
  for (const FileSummary::Head& head : s.headRecords) {
    text += row("head", fmt::format("{}, {} bytes", headRecordName(head.trackId), head.size));
  }
  for (const Claim& claim : s.claims) text += row("claim", claimText(claim));
  if (!s.count) return text;
  for (const auto& [type, kind] : s.count->kinds) {
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
               {"wholeEnd", s.hidden.end},
               {"first", timeJson(s.firstTime)},
               {"duration", timeJson(s.duration)},
               {"typeFlags", s.typeFlags},
               {"types", flagsText(s.typeFlags)},
               {"video", firstTagJson(s.video)},
               {"audio", firstTagJson(s.audio)},
               {"width", s.width ? Json(*s.width) : Json(nullptr)},
               {"height", s.height ? Json(*s.height) : Json(nullptr)},
               {"frameRate", s.frameRate ? Json(*s.frameRate) : Json(nullptr)},
               {"bitRate", ratesJson(s)},
               {"headRecords", std::move(heads)},
               {"claims", claimsJson(s.claims)},
               {"memoryOverhead", s.memoryOverhead}};
  if (s.count) json["tags"] = countJson(*s.count);
  return json;
}

std::string jsonText(const Json& document) {
  return printableJson(document.dump(2, ' ', false, Json::error_handler_t::replace)) + "\n";
}

}  // namespace orv::host
