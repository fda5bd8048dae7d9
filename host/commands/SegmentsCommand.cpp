#include <nlohmann/json.hpp>

#include "host/commands/Commands.h"
#include "host/module/FileSummary.h"
#include "host/module/SegmentText.h"
#include "host/module/SegmentWalk.h"
#include "host/text/Console.h"

namespace orv::host {

ExitCode runSegments(const SegmentsOptions& options) {
  Session session(options.common);
  Stream stream = session.open(options.file);
  stream.requirePlayable();
  SegmentWalk walk(stream);
  auto list = nlohmann::ordered_json::array();
  if (!options.json) print(segmentHeading());
  for (u64 number = 0; const auto bounds = walk.next(); ++number) {
    if (options.json) {
      list.push_back(boundsJson(*bounds));
    } else {
      print(segmentLine(number, *bounds));
    }
  }
  if (options.json) {
    print(jsonText({{"file", options.file}, {"playableEnd", walk.end()}, {"segments", std::move(list)}}));
  }
  flushOutput();
  session.reportStats();
  walk.tellGaps();
  return walk.isComplete() ? ExitCode::good : ExitCode::fileFault;
}

}  // namespace orv::host
