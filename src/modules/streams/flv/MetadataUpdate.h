// The "onMetaData" of a recording, with its values as of a flush.

#pragma once

#include "modules/streams/flv/RecordedCodecs.h"
#include "server/KTMessage.h"

namespace orv::flv {

// Sets "duration" (given in milliseconds) and "canSeekToEnd", and the codecs where they are 0; adds no key.
// Returns the new message, whose length may differ; null if `old` has none of these keys.
KTMessagePtr updatedMetadata(const KTMessagePtr& old, u32 duration, const RecordedCodecs& codecs);

}  // namespace orv::flv
