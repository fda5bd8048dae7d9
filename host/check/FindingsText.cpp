#include "host/check/FindingsText.h"
#include "host/text/CountText.h"

#include <nlohmann/json.hpp>

namespace orv::host {

using Json = nlohmann::ordered_json;

std::string verdictText(const Findings& findings) {
  std::string text;
  for (const Severity severity : {Severity::error, Severity::warning, Severity::note}) {
    const u64 count = findings.count(severity);
    if (count > 0) text += (text.empty() ? "" : ", ") + countText(count, severityName(severity));
  }
  return text.empty() ? "sound" : text;
}

Json findingJson(const Finding& finding) {
  const CodeInfo& info = infoOf(finding.code);
  Json json = {{"code", info.text}, {"severity", severityName(info.severity)}};
  if (finding.position) json["position"] = *finding.position;
  if (finding.time) json["time"] = *finding.time;
  json["text"] = finding.text;
  return json;
}

}  // namespace orv::host
