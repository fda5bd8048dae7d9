// A time looked up in a file: the segment that holds it, and where in there a player would look.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "host/module/Session.h"

namespace orv::host {

struct SeekAnswer {
  struct Place {
    u8 type;
    u32 time;
  };

  u32 time;
  SegmentBounds bounds;
  u64 searchCalls;           // Host calls that the search took.
  std::optional<Place> tag;  // The last one of the segment at or before the time.
  std::optional<Place> keyFrame;
  bool isWhole;  // False if the segment is damaged.
};

// Throws Failure if the file doesn't hold `time`.
SeekAnswer seek(Session& session, Stream& stream, u32 time);

std::string seekText(const SeekAnswer& answer);
nlohmann::ordered_json seekJson(const SeekAnswer& answer);

}  // namespace orv::host
