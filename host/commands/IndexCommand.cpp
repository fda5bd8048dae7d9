#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/commands/Commands.h"
#include "host/files/FileSource.h"
#include "host/flv/MediaHead.h"
#include "host/flv/Walker.h"
#include "host/module/FileSummary.h"
#include "host/text/Console.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

template <class Visit>
void forEachKeyFrame(const std::string& file, Visit visit) {
  FileSource source(file);
  Walker walker(source);
  while (const auto step = walker.next()) {
    const auto* const tag = std::get_if<WalkedTag>(&*step);
    if (!tag) continue;
    const auto head = mediaHead(tag->tag);
    if (head && head->isKeyFrame) visit(*tag);
  }
}

}  // namespace

ExitCode runIndex(const IndexOptions& options) {
  if (!options.output.empty()) {
    return runRepair({options.file, options.output, options.existing, false, false, true});
  }
  Json entries = Json::array();
  u64 count = 0;
  forEachKeyFrame(options.file, [&](const WalkedTag& key) {
    if (options.json) {
      entries.push_back({{"position", key.position}, {"time", timeJson(key.tag.time)}});
    } else {
      print(fmt::format("{:>14}  {}\n", key.position, timeText(key.tag.time)));
    }
    ++count;
  });
  if (options.json) print(jsonText({{"file", options.file}, {"keyFrames", std::move(entries)}}));
  flushOutput();
  if (count == 0) throw fileFault(options.file + ": holds no key frame");
  return ExitCode::good;
}

}  // namespace orv::host
