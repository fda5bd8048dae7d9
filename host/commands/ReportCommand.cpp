#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "host/check/Checker.h"
#include "host/check/FindingsText.h"
#include "host/commands/Commands.h"
#include "host/files/ByteProgress.h"
#include "host/files/FileSource.h"
#include "host/flv/FlvNames.h"
#include "host/module/SegmentWalk.h"
#include "host/report/ReportPage.h"
#include "host/report/Timeline.h"
#include "host/text/Console.h"
#include "host/text/CountText.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMostSegments = 5000;  // More can't be told apart in any window.
constexpr std::string_view kDataMark = "<!--DATA-->";

std::string sizeText(i64 bytes) {
  const auto size = static_cast<double>(bytes);
  if (bytes < 10'000) return countText(static_cast<u64>(bytes), "byte");
  if (bytes < 10 << 20) return fmt::format("{:.1f} KiB", size / 1024);
  return bytes < i64{10} << 30 ? fmt::format("{:.1f} MiB", size / 1048576)
                               : fmt::format("{:.1f} GiB", size / 1073741824);
}

std::string rateText(const StreamFacts::Kind& kind) {
  const u32 time = kind.lastTime > kind.firstTime ? kind.lastTime - kind.firstTime : 0;
  if (time == 0) return "unknown";
  return fmt::format("{:.0f} kbit/s", static_cast<double>(kind.bytes) * 8 / time);
}

std::string codecName(const StreamFacts::Kind& kind, bool isVideo) {
  MediaHead head;
  head.isVideo = isVideo;
  head.codec = kind.codec;
  return kind.codec ? codecNameText(head) : "unknown";
}

void addVideo(Json& rows, const StreamFacts& facts) {
  const StreamFacts::Kind& video = facts.video;
  if (video.tags == 0) return;
  rows.push_back({"Video", codecName(video, true)});
  if (facts.pictures)
    rows.push_back({"Picture", fmt::format("{} x {}", facts.pictures->width, facts.pictures->height)});
  if (video.frames > 1 && video.lastTime > video.firstTime) {
    const double rate = static_cast<double>(video.frames - 1) * 1000 / (video.lastTime - video.firstTime);
    rows.push_back({"Frame rate", fmt::format("{:.2f} a second", rate)});
  }
  rows.push_back({"Video bit rate", rateText(video)});
  rows.push_back({"Key frames", fmt::format("{}", facts.keyFrames)});
}

// What stands at the top, as pairs of a name and a text.
Json summaryOf(const Checker& checker) {
  const StreamFacts& facts = checker.facts();
  Json rows = Json::array();
  rows.push_back({"Size", sizeText(checker.fileSize())});
  rows.push_back({"Duration", timeText(facts.duration())});
  rows.push_back({"First time", timeText(facts.firstTime)});
  rows.push_back({"Last time", timeText(facts.lastTime)});
  rows.push_back({"Tags", fmt::format("{}", facts.tagCount())});
  addVideo(rows, facts);
  if (facts.audio.tags > 0) {
    rows.push_back({"Audio", codecName(facts.audio, false)});
    rows.push_back({"Audio bit rate", rateText(facts.audio)});
  }
  if (checker.header()) rows.push_back({"Header flags", flagsText(checker.header()->flags)});
  return rows;
}

// Without the empty stretches before the first tag.
Json timelineOf(const Timeline& timeline) {
  const auto& stretches = timeline.stretches();
  const auto isFilled = [](const Timeline::Stretch& s) { return s.video + s.audio + s.data > 0; };
  // Metadata at 0, before media that start later, aren't worth an empty chart.
  const auto isMedia = [](const Timeline::Stretch& s) { return s.video + s.audio > 0; };
  auto first = std::ranges::find_if(stretches, isMedia);
  if (first == stretches.end()) first = std::ranges::find_if(stretches, isFilled);
  Json json = {{"bucketMs", timeline.stretchMs()},
               {"start", static_cast<u64>(first - stretches.begin()) * timeline.stretchMs()}};
  for (const char* const name : {"video", "audio", "data", "keys", "keyPlaces"}) json[name] = Json::array();
  for (; first != stretches.end(); ++first) {
    json["video"].push_back(first->video);
    json["audio"].push_back(first->audio);
    json["data"].push_back(first->data);
    json["keys"].push_back(first->keyFrames);
    json["keyPlaces"].push_back(std::round(first->keyPlace * 1000) / 1000);
  }
  return json;
}

struct Segments {
  Json list = Json::array();  // Of start, end in milliseconds, and size in bytes.
  std::string remark;
};

// As the module cuts them.
Segments segmentsOf(const ReportOptions& options) {
  Segments segments;
  try {
    Session session(options.common);
    Stream stream = session.open(options.file);
    SegmentWalk walk(stream);
    while (const auto bounds = walk.next()) {
      if (segments.list.size() == kMostSegments) {
        segments.remark = fmt::format("The first {} segments are shown.", kMostSegments);
        break;
      }
      segments.list.push_back(
          {bounds->startTime, bounds->endTime, bounds->endPosition - bounds->startPosition + 1});
    }
  } catch (const Failure& failure) {
    segments.remark = std::string("The storage module cannot play this file: ") + failure.what() + ".";
  }
  return segments;
}

Json reportOf(const ReportOptions& options, const Checker& checker, const Timeline& timeline) {
  const Findings& findings = checker.findings();
  const Segments segments = segmentsOf(options);
  Json report = timelineOf(timeline);
  report["file"] = options.file;
  report["verdict"] = verdictText(findings);
  report["errors"] = findings.count(Severity::error);
  report["warnings"] = findings.count(Severity::warning);
  report["notes"] = findings.count(Severity::note);
  report["summary"] = summaryOf(checker);
  report["segments"] = segments.list;
  report["remark"] = segments.remark;
  report["findings"] = Json::array();
  for (const Finding& finding : findings.kept()) report["findings"].push_back(findingJson(finding));
  return report;
}

// In a page's script: nothing in it may end the element.
std::string scriptText(const Json& json) {
  std::string text = json.dump(-1, ' ', true, Json::error_handler_t::replace);
  for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;) text.replace(at, 1, "\\u003c");
  return text;
}

}  // namespace

ExitCode runReport(const ReportOptions& options) {
  FileSource source(options.file);
  OutputFile out(options.output, options.existing, source.identity());
  Checker checker(source);
  Timeline timeline;
  checker.observe([&](const Tag& tag, const std::optional<MediaHead>& head) { timeline.note(tag, head); });
  {
    ByteProgress progress(source);
    checker.run([&](i64 position) { progress.show(position); });
  }
  std::string page = kReportPage;
  page.replace(page.find(kDataMark), kDataMark.size(), scriptText(reportOf(options, checker, timeline)));
  out.write(page.data(), page.size());
  out.close();
  return ExitCode::good;
}

}  // namespace orv::host
