// The metadata of a piece of a file.

#pragma once

#include <optional>
#include <vector>

#include "host/flv/Tags.h"

namespace orv::host {

struct ClipFacts {
  double duration = 0;             // Seconds from its first tag to its last.
  std::optional<double> fileSize;  // None: the key is left out, as where the size isn't known in time.
};

// Returns the payload of `tag`, an "onMetaData", with what is true of a piece; what only holds of the whole
// file, such as an index of its key frames, is left out. The length doesn't depend on the figures. None if
// the message can't be rebuilt.
std::optional<std::vector<u8>> clipMetadata(const Tag& tag, const ClipFacts& facts);

}  // namespace orv::host
