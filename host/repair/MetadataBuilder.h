// A new "onMetaData" that says what is true.

#pragma once

#include <optional>
#include <span>
#include <vector>

#include "host/flv/MetadataFacts.h"

namespace orv::host {

// The payload, for a tag of type 18, is made of the figures of `truth`, the key frames of `index` if there
// are any, and whatever else `old`, which may be null, says and nobody can disprove. `size` bytes long if
// that is given and enough: a text is filled up with blanks. Empty if it is too big for a tag.
std::vector<u8> buildMetadata(const Metadata* old, std::span<const TrueValue> truth,
                              std::span<const KeyFrame> index, std::size_t size = 0);

// All that trueMetadata() may ever hold, with figures that mean nothing: metadata made of it has room for
// any.
std::vector<TrueValue> everyTrueValue();
// Those of `values` that the tags to come can't change.
std::vector<TrueValue> lastingValues(std::span<const TrueValue> values);

}  // namespace orv::host
