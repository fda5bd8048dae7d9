// What a file's "onMetaData" claims, beside what its tags say.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/flv/Tags.h"

namespace orv::host {

// What the tags say.
struct TagFacts {
  u32 firstTime;  // Of the first tag, in milliseconds.
  u32 duration;   // Time of the last tag.
  i64 fileSize;
  std::optional<u32> videoCodec;
  std::optional<u32> audioCodec;
  bool isComplete;  // All tags were seen: a codec that is none doesn't occur.
};

enum class Verdict {
  agrees,
  differs,
  unknown,  // The tags that were seen don't say.
};

struct Claim {
  const char* key;                // "duration", "filesize", "videocodecid", "audiocodecid"
  std::optional<double> claimed;  // None for a value that isn't a number. Durations are in seconds.
  std::optional<double> actual;
  Verdict verdict;
  std::string claimedText;
  std::string actualText;
};

// The claims that `metadata`, a data tag, makes. A duration is the last tag's time, or the time from the
// first tag to the last. It may exceed that by the last tag's own length, which no tag holds: it agrees if it
// is off by no more than half a second.
std::vector<Claim> claimsOf(const Tag& metadata, const TagFacts& facts);

}  // namespace orv::host
