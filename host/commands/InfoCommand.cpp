#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "host/commands/Commands.h"
#include "host/module/FileSummary.h"
#include "host/text/Console.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

class InfoRun {
 public:
  explicit InfoRun(const InfoOptions& options) : options_(options), session_(options.common) {}

  // One bad file doesn't keep the others from being shown; the worst of them makes the exit code.
  ExitCode run() {
    for (const std::string& file : options_.files) show(file);
    if (options_.json) host::print(jsonText({{"files", files_}}));
    flushOutput();
    session_.reportStats();
    return worst_;
  }

 private:
  void show(const std::string& file) {
    std::optional<FileSummary> summary;
    try {
      Stream stream = session_.open(file);
      summary = summarize(stream, options_.count ? Depth::wholeFile : Depth::front);
      if (summary->count && summary->count->damages > 0) note(ExitCode::fileFault);
      if (summary->bytesBehind() > 0) stream.requirePlayable();
    } catch (const Failure& failure) {
      report(failure.what());
      note(failure.code());
      if (options_.json && !summary) files_.push_back({{"file", file}, {"error", failure.what()}});
    }
    if (summary) print(*summary);
  }

  void print(const FileSummary& summary) {
    if (options_.json) return files_.push_back(summaryJson(summary));
    host::print(summaryText(summary));
    flushOutput();
  }

  void note(ExitCode code) { worst_ = std::max(worst_, code); }

  const InfoOptions& options_;
  Session session_;
  Json files_ = Json::array();
  ExitCode worst_ = ExitCode::good;
};

}  // namespace

ExitCode runInfo(const InfoOptions& options) {
  return InfoRun(options).run();
}

}  // namespace orv::host
