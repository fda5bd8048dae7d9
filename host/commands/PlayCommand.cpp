#include <fmt/format.h>

#include <optional>

#include "host/commands/Commands.h"
#include "host/flv/FlvNames.h"
#include "host/module/PlayOut.h"
#include "host/module/PlayText.h"
#include "host/text/Console.h"
#include "host/text/CountText.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

// A written stream keeps the file's order of tags, which aggregates disturb: a tag of time 0 overtakes them.
CommonOptions moduleOptions(const PlayOptions& options) {
  CommonOptions common = options.common;
  if (!options.output.empty() && !options.aggregates) common.settings.setDefault("EnableAggMsgs", "false");
  return common;
}

PlayTally playTo(Stream& stream, const PlayOptions& options, const PlayPlan& plan, TagVerifier* verifier) {
  if (options.output.empty()) return playOut(stream, plan, nullptr, verifier);
  const u8 flags = expectedFlags(stream);
  OutputFile out(options.output, options.existing, stream.identity());
  FlvWriter writer(out);
  writer.header(flags);
  const PlayTally tally = playOut(stream, plan, &writer, verifier);
  writer.finish();
  return tally;
}

// Standard output may be taken by the media.
void report(const PlayOptions& options, const PlayTally& tally, const std::optional<TagVerifier>& verifier) {
  if (options.output.empty()) {
    print(tallyText(tally));
    if (verifier) print("  checked   " + verdictText(*verifier) + "\n");
    flushOutput();
    return;
  }
  if (options.output != "-") note(options.output + ": " + sentText(tally));
  if (verifier) note("checked " + verdictText(*verifier));
}

}  // namespace

std::string sentText(const PlayTally& tally) {
  return runText(tally.sent.tags, tally.sent.bytes, tally.firstTime, tally.lastTime);
}

std::string tallyText(const PlayTally& tally) {
  const PlayTally::Kind total = tally.total();
  std::string text = fmt::format("  played    {}\n", sentText(tally));
  text += fmt::format("  delivered {}, {} of data in {}, {}, {} of them aggregates\n",
                      countText(total.tags, "tag"), countText(total.bytes, "byte"),
                      countText(tally.segments, "segment"), countText(tally.messages, "message"),
                      tally.aggregates);
  for (const auto& [type, kind] : tally.kinds) {
    text += fmt::format("  {:<9} {}, {} of data\n", fmt::format("{} {}", tagTypeName(type), type),
                        countText(kind.tags, "tag"), countText(kind.bytes, "byte"));
  }
  return text;
}

std::string verdictText(const TagVerifier& verifier) {
  if (verifier.faults() > 0)
    return fmt::format("{}; {}", countText(verifier.faults(), "fault"), verifier.firstFault());
  std::string text = fmt::format("{}, {} of the file: each one equal", countText(verifier.tags(), "tag"),
                                 countText(verifier.bytes(), "byte"));
  if (verifier.headRecords()) text += fmt::format("; head records kept aside: {}", verifier.headRecords());
  if (verifier.droppedFrames()) text += fmt::format("; empty frames left out: {}", verifier.droppedFrames());
  return text;
}

ExitCode runPlay(const PlayOptions& options) {
  Session session(moduleOptions(options));
  Stream stream = session.open(options.file);
  stream.requirePlayable();
  PlayPlan plan;
  plan.aggregates = options.aggregates;
  plan.end = options.to;
  plan.isPiece = options.from || options.to;
  if (options.from) plan.start = findPlayStart(stream, *options.from);

  std::optional<TagVerifier> verifier;
  if (options.verify) verifier.emplace(stream);
  const PlayTally tally = playTo(stream, options, plan, verifier ? &*verifier : nullptr);
  report(options, tally, verifier);
  session.reportStats();
  return tally.isGood() && (!verifier || verifier->faults() == 0) ? ExitCode::good : ExitCode::fileFault;
}

}  // namespace orv::host
