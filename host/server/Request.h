// What a client of the server asks for, read from its request's first line alone. Everything here is bytes
// from anybody.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Types.h"

namespace orv::host {

// A time as a viewer gives it: from the start, or back from the end.
struct ViewTime {
  u32 ms = 0;
  bool fromEnd = false;
  bool operator==(const ViewTime&) const = default;
};

struct ServerRequest {
  enum class Kind { page, script, player, list, metrics, media, summary, segments, unknown };
  Kind kind = Kind::unknown;
  std::string name;  // Of the media file, relative to the served folder: "films/clip.flv".
  std::optional<ViewTime> from;
  std::optional<ViewTime> to;
  std::string token;
  bool isBad = false;  // It can't mean anything.
};

// Reads "/films/clip.flv?from=1:30&to=2:00", "/films/clip.json", "/films/clip/segments.json", "/",
// "/list.json",
// "/metrics". A time is one of the command line's; "-30s" counts back from the end.
ServerRequest readRequest(std::string_view target);

// Whether `name` is one that is served: at most 255 bytes in at most 8 parts, no part empty or with a leading
// point, no backslash, no control character, ".flv" at the end.
bool isServedName(std::string_view name);

// Compares without telling by its duration where the texts differ.
bool isSameSecret(std::string_view a, std::string_view b);

}  // namespace orv::host
