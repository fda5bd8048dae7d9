// How far a file's tags stand whole, one behind the other: what a crash or a power cut left in front of its
// mark.

#pragma once

#include "host/files/ReadOnlyFile.h"

namespace orv::host {

struct WholeTags {
  u64 count;
  i64 end;  // Behind the last of them; where the look started if there is none.
};

// Follows the sizes of the tags from the one at `position` on, up to the first that isn't whole in the file's
// `size` bytes. One read of a few bytes a tag.
WholeTags followTags(const ReadOnlyFile& file, i64 position, i64 size);

}  // namespace orv::host
