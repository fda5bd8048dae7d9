#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/commands/Commands.h"
#include "host/commands/LiveDemo.h"
#include "host/module/FileSummary.h"
#include "host/module/PlayText.h"
#include "host/module/SeekAnswer.h"
#include "host/module/SegmentText.h"
#include "host/module/SegmentWalk.h"
#include "host/text/Console.h"

namespace orv::host {

namespace {

constexpr std::size_t kShownSegments = 10;  // Of a longer list: the first ones and the last.

bool showSegments(Stream& stream) {
  SegmentWalk walk(stream);
  print("segments\n" + segmentHeading());
  u64 number = 0;
  std::string last;
  for (; const auto bounds = walk.next(); ++number) {
    last = segmentLine(number, *bounds);
    if (number < kShownSegments) print(std::exchange(last, {}));
  }
  if (number > kShownSegments + 1) print(fmt::format("   ...  {} more\n", number - kShownSegments - 1));
  print(last);
  return walk.isComplete();
}

// Halfway between the file's first time and its last.
u32 middleOf(Stream& stream) {
  const auto first = stream.segmentAtPosition(0);
  const u32 start = first ? first->startTime : 0;
  const u32 end = std::max(stream.duration(), start);
  return start + (end - start) / 2;
}

// In a stream of its own, which knows no segment yet.
bool showSeek(Session& session, const std::string& file, u32 time) {
  Stream stream = session.open(file);
  try {
    const SeekAnswer answer = seek(session, stream, time);
    print("seek to the middle\n" + seekText(answer));
    return answer.isWhole;
  } catch (const Failure& failure) {
    report(failure.what());
    return false;
  }
}

bool showPlayOut(Stream& stream) {
  TagVerifier verifier(stream);
  const PlayTally tally = playOut(stream, {}, nullptr, &verifier);
  print("play-out\n" + tallyText(tally) + "  checked   " + verdictText(verifier) + "\n");
  return tally.isGood() && verifier.faults() == 0;
}

ExitCode showPlaying(const DemoOptions& options) {
  Session session(options.common);
  Stream stream = session.open(options.file);
  print(summaryText(summarize(stream, Depth::front)));
  stream.requirePlayable();
  const bool segmentsGood = showSegments(stream);
  const bool seekGood = showSeek(session, options.file, middleOf(stream));
  const bool playGood = showPlayOut(stream);
  flushOutput();
  session.reportStats();
  return segmentsGood && seekGood && playGood ? ExitCode::good : ExitCode::fileFault;
}

}  // namespace

// One after the other: the module knows one file service at a time.
ExitCode runDemo(const DemoOptions& options) {
  const ExitCode played = showPlaying(options);
  const ExitCode recorded = showLiveRecording(options);
  return std::max(played, recorded);
}

}  // namespace orv::host
