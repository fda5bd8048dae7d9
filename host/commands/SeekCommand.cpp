#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "host/commands/Commands.h"
#include "host/flv/FlvNames.h"
#include "host/module/FileSummary.h"
#include "host/module/PlayOut.h"
#include "host/module/SeekAnswer.h"
#include "host/text/Console.h"
#include "host/text/Printable.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

Json placeJson(const std::optional<SeekAnswer::Place>& place) {
  if (!place) return nullptr;
  return {{"type", place->type}, {"name", tagTypeName(place->type)}, {"time", timeJson(place->time)}};
}

Failure notFound(Stream& stream, u32 time) {
  const u32 last = stream.duration();
  const auto first = stream.segmentAtPosition(0);
  if (time > last) {
    return fileFault(
        fmt::format("{}: {} is after its end at {}", stream.name(), timeText(time), timeText(last)));
  }
  if (first && time < first->startTime) {
    return fileFault(fmt::format("{}: {} is before its start at {}", stream.name(), timeText(time),
                                 timeText(first->startTime)));
  }
  return fileFault(fmt::format("{}: no segment found at {}", stream.name(), timeText(time)));
}

}  // namespace

SeekAnswer seek(Session& session, Stream& stream, u32 time) {
  const u64 callsBefore = session.calls().total();
  const std::optional<SegmentBounds> bounds = stream.segmentAtTime(time);
  if (!bounds) throw notFound(stream, time);
  SeekAnswer answer{time, *bounds, session.calls().total() - callsBefore, {}, {}, true};
  answer.isWhole = stream.load(*bounds, [&](const Message& message) {
    forEachTag(message, [&](const Tag& tag) {
      if (tag.time > time) return;
      answer.tag = {tag.type, tag.time};
      if (isKeyFrame(tag)) answer.keyFrame = answer.tag;
    });
  });
  if (!answer.keyFrame && (stream.typeFlags() & kFlagVideo)) {
    if (const auto start = findKeyFrame(stream, *bounds, time))
      answer.keyFrame = {flv::kTypeVideo, start->time};
  }
  return answer;
}

std::string seekText(const SeekAnswer& a) {
  std::string text = fmt::format(
      "  time      {}\n  segment   bytes {} to {} ({} bytes), {} to {}\n  search    {} host calls\n",
      timeText(a.time), a.bounds.startPosition, a.bounds.endPosition,
      a.bounds.endPosition - a.bounds.startPosition + 1, timeText(a.bounds.startTime),
      timeText(a.bounds.endTime), a.searchCalls);
  if (a.tag) text += fmt::format("  tag       {} at {}\n", tagTypeName(a.tag->type), timeText(a.tag->time));
  if (a.keyFrame) text += fmt::format("  key frame at {}\n", timeText(a.keyFrame->time));
  return text;
}

Json seekJson(const SeekAnswer& a) {
  return {{"time", timeJson(a.time)},
          {"segment", boundsJson(a.bounds)},
          {"searchCalls", a.searchCalls},
          {"tag", placeJson(a.tag)},
          {"keyFrame", placeJson(a.keyFrame)}};
}

ExitCode runSeek(const SeekOptions& options) {
  Session session(options.common);
  Stream stream = session.open(options.file);
  stream.requirePlayable();
  const SeekAnswer answer = seek(session, stream, options.time);
  if (options.json) {
    Json json = {{"file", options.file}};
    json.update(seekJson(answer));
    print(jsonText(json));
  } else {
    print(printable(options.file) + "\n" + seekText(answer));
  }
  flushOutput();
  session.reportStats();
  if (!answer.isWhole) throw fileFault(options.file + ": the segment is damaged");
  return ExitCode::good;
}

}  // namespace orv::host
