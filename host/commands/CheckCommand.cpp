#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "host/check/Checker.h"
#include "host/check/FindingsText.h"
#include "host/commands/Commands.h"
#include "host/files/ByteProgress.h"
#include "host/files/FileSource.h"
#include "host/module/FileSummary.h"
#include "host/text/Console.h"
#include "host/text/CountText.h"
#include "host/text/Printable.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr u64 kMostShown = 10;  // Of one code.

// As wide as a column.
std::string severityText(Severity severity) {
  const char* const name = severityName(severity);
  if (!isColoured()) return fmt::format("{:<8}", name);
  const int colour = severity == Severity::error ? 31 : severity == Severity::warning ? 33 : 36;
  return fmt::format("\x1b[{}m{:<8}\x1b[0m", colour, name);
}

std::string row(const Finding& finding) {
  const CodeInfo& info = infoOf(finding.code);
  return fmt::format("  {} {:<20}{:>13}  {:<14}{}\n", severityText(info.severity), info.text,
                     finding.position ? fmt::format("{}", *finding.position) : "",
                     finding.time ? timeText(*finding.time) : "", finding.text);
}

std::string table(const std::string& name, const Checker& checker) {
  const StreamFacts& facts = checker.facts();
  std::string text = fmt::format("{}: {} ({}, {}, {})\n", printable(name), verdictText(checker.findings()),
                                 countText(facts.tagCount(), "tag"), timeText(facts.duration()),
                                 countText(static_cast<u64>(checker.fileSize()), "byte"));
  std::map<Code, u64> shown;
  for (const Finding& finding : checker.findings().kept()) {
    if (++shown[finding.code] <= kMostShown) text += row(finding);
  }
  for (const auto& [code, count] : checker.findings().counts()) {
    if (count <= kMostShown) continue;
    const CodeInfo& info = infoOf(code);
    text +=
        fmt::format("  {} {:<20}and {} more\n", severityText(info.severity), info.text, count - kMostShown);
  }
  return text;
}

Json fileJson(const std::string& name, const Checker& checker) {
  const Findings& findings = checker.findings();
  Json list = Json::array(), counts = Json::object();
  for (const Finding& finding : findings.kept()) list.push_back(findingJson(finding));
  for (const auto& [code, count] : findings.counts()) counts[infoOf(code).text] = count;
  return {{"file", name},
          {"size", checker.fileSize()},
          {"tags", checker.facts().tagCount()},
          {"duration", timeJson(checker.facts().duration())},
          {"errors", findings.count(Severity::error)},
          {"warnings", findings.count(Severity::warning)},
          {"notes", findings.count(Severity::note)},
          {"counts", std::move(counts)},
          {"findings", std::move(list)}};
}

class CheckRun {
 public:
  explicit CheckRun(const CheckOptions& options) : options_(options) {}

  // One bad file doesn't keep the others from being checked; the worst of them makes the exit code.
  ExitCode run() {
    for (const std::string& file : options_.files) check(file);
    if (options_.json) print(jsonText({{"files", files_}}));
    flushOutput();
    return worst_;
  }

 private:
  void check(const std::string& file) try {
    const auto source = openSource(file);
    Checker checker(*source);
    {
      ByteProgress progress(*source);
      checker.run([&](i64 position) { progress.show(position); });
    }
    if (checker.findings().count(Severity::error) > 0) note(ExitCode::fileFault);
    if (options_.json) return files_.push_back(fileJson(source->name(), checker));
    print(table(source->name(), checker));
    flushOutput();
  } catch (const Failure& failure) {
    report(failure.what());
    note(failure.code());
    if (options_.json) files_.push_back({{"file", file}, {"error", failure.what()}});
  }

  void note(ExitCode code) { worst_ = std::max(worst_, code); }

  const CheckOptions& options_;
  Json files_ = Json::array();
  ExitCode worst_ = ExitCode::good;
};

}  // namespace

ExitCode runCheck(const CheckOptions& options) {
  return CheckRun(options).run();
}

}  // namespace orv::host
