#include "host/repair/Repair.h"

#include <fmt/format.h>

#include "host/commands/Commands.h"
#include "host/files/ByteProgress.h"
#include "host/files/FileSource.h"
#include "host/text/Console.h"
#include "host/text/CountText.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

// Standard input may be a file as well, and OUT the same one.
FileIdentity identityOf(const std::string& name) {
  if (name != "-") return checkReadable(name);
  const Descriptor input = Descriptor::duplicate(STDIN_FILENO);
  const auto status = input.status();
  return status ? FileIdentity{status->st_dev, status->st_ino, status->st_size} : FileIdentity{};
}

std::string summary(const RepairResult& result, const RepairOptions& options) {
  const RepairedTags::Losses& losses = result.losses;
  std::string text = fmt::format("{}, {} long", countText(result.facts.tagCount(), "tag"),
                                 timeText(result.facts.duration()));
  if (losses.breaks > 0) {
    text += fmt::format("; {} left out, {} bytes", countText(losses.breaks, "damaged place"), losses.bytes);
  }
  if (losses.unknownTypes > 0) {
    text += fmt::format("; {} of unknown type {}", countText(losses.unknownTypes, "tag"),
                        options.dropUnknown ? "left out" : "kept; --drop-unknown leaves them out");
  }
  return text;
}

}  // namespace

ExitCode runRepair(const RepairOptions& options) {
  const auto source = openSource(options.input);
  if (options.keyFrames && source->size() < 0) {
    throw hostFault("--keyframes needs a file, which can be read twice, not a pipe");
  }
  OutputFile out(options.output, options.existing, identityOf(options.input));
  const RepairJob job{{options.fixTimes, options.dropUnknown}, options.keyFrames};
  RepairResult result;
  {
    ByteProgress progress(*source);
    result = repair(*source, out, job, [&](i64 position) { progress.show(position); });
  }
  note((options.output == "-" ? source->name() : options.output) + ": " + summary(result, options));
  return ExitCode::good;
}

}  // namespace orv::host
