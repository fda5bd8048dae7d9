// What a file's "onMetaData" claims, beside what its tags say.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Tags.h"

namespace orv::host {

// What the tags say. A codec is none where no tag tells it.
struct TagFacts {
  u32 duration;  // Time of the last tag, in milliseconds.
  i64 fileSize;
  std::optional<u32> videoCodec;
  std::optional<u32> audioCodec;
};

struct Claim {
  const char* key;                // "duration", "filesize", "videocodecid", "audiocodecid"
  std::optional<double> claimed;  // None for a value that isn't a number. Durations are in seconds.
  std::optional<double> actual;
  bool agrees;
  std::string claimedText;
  std::string actualText;
};

// The claims that `metadata`, a data tag, makes. A duration may exceed the last tag's time by that tag's own
// length, which no tag tells: it agrees if it is off by no more than half a second.
std::vector<Claim> claimsOf(const Tag& metadata, const TagFacts& facts);

}  // namespace orv::host
