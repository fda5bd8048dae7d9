// Findings for people and for programs.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "host/check/Findings.h"

namespace orv::host {

// "2 errors, 1 note", or "sound".
std::string verdictText(const Findings& findings);
// {"code", "severity", "position", "time" in milliseconds, "text"}; a place or time that isn't known is left
// out.
nlohmann::ordered_json findingJson(const Finding& finding);

}  // namespace orv::host
