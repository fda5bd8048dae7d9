// Why the module can't play a file, in a few words for a person.

#pragma once

#include <string>
#include <vector>

#include "platform/Types.h"

namespace orv::host {

// What is wrong with the first bytes of a file, as far as they were read; empty if they are an FLV header.
std::string explainHeader(const std::vector<u8>& head);

// Why the module refused `file`, in a few words, from the bytes at its front. Never empty.
std::string explainRefusal(const std::string& file);

// Why a file that opened has nothing to play; `firstTag` is where the module found that tags start.
std::string explainNothingPlayable(const std::string& file, i64 firstTag);

}  // namespace orv::host
