// The size of the pictures, from the first bytes of a key frame or from a codec's set-up record.

#pragma once

#include <optional>

#include "host/flv/MediaHead.h"

namespace orv::host {

struct PictureSize {
  u32 width;
  u32 height;
  bool operator==(const PictureSize&) const = default;
};

// None where this tag doesn't hold it: of H.263, Screen video, VP6, VP8 and VP9, key frames do; of H.264 and
// H.265, set-up records; of AV1, either. Of other codecs nothing is known.
std::optional<PictureSize> pictureSize(const Tag& tag, const MediaHead& head);

}  // namespace orv::host
