// What a play-out delivered, for a person.

#pragma once

#include <string>

#include "host/module/PlayOut.h"

namespace orv::host {

std::string sentText(const PlayTally& tally);  // What went out, without a line end.
std::string tallyText(const PlayTally& tally);
// Whether what came is what the file holds, without a line end.
std::string verdictText(const TagVerifier& verifier);

}  // namespace orv::host
