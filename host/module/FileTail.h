// How a file ends, for whoever appends to it.

#pragma once

#include <string>
#include <vector>

#include "host/module/Session.h"

namespace orv::host {

struct FileTail {
  i64 size = 0;
  i64 playableEnd = 0;  // Of the last whole tag; what lies behind is torn or foreign.
  bool hasTags = false;
  u32 lastTime = 0;              // The highest of the last segment.
  u32 frameTime = 0;             // How long the last frame is shown, as far as the frames before it say.
  std::vector<OwnedTag> head;    // Records at the head, of which a part of the file on its own needs a copy.
  std::vector<OwnedTag> setups;  // Codec set-up records that are valid at the end.

  i64 torn() const { return size - playableEnd; }
};

// Costs a few segments' reading. Throws Failure if the file can't be played.
FileTail readTail(Session& session, const std::string& file);

}  // namespace orv::host
