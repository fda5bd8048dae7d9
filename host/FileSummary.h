// What a file holds, as the module tells it and its first tags show.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "MetadataClaims.h"
#include "PlayOut.h"
#include "Session.h"

namespace orv::host {

struct FileSummary {
  struct FirstTag {
    u32 time;
    std::string codec;
    std::optional<u32> codecId;  // None if the tag is encrypted.
    bool isKeyFrame;
  };
  struct Head {
    u32 trackId;
    u32 size;
  };

  std::string name;
  i64 fileSize;
  i64 playableEnd;  // Where the last whole tag ends; what lies behind is torn or foreign.
  i64 endPosition;  // 0 if nothing is playable.
  u32 duration;
  u32 typeFlags;
  u32 memoryOverhead;
  std::optional<FirstTag> video;  // Among the first segments' tags.
  std::optional<FirstTag> audio;
  std::vector<Head> headRecords;
  std::vector<Claim> claims;       // Of the metadata.
  std::optional<PlayTally> tally;  // If the whole file was counted.

  i64 bytesBehind() const { return fileSize - playableEnd; }
};

enum class Depth { front, wholeFile };

// The front costs a few host calls whatever the file's length; counting tags reads all of it.
FileSummary summarize(Stream& stream, Depth depth);

std::string summaryText(const FileSummary& summary);
nlohmann::ordered_json summaryJson(const FileSummary& summary);

// A time as JSON: {"ms": 5040, "text": "00:00:05.040"}.
nlohmann::ordered_json timeJson(u32 time);
nlohmann::ordered_json boundsJson(const SegmentBounds& bounds);
// The document's text, with a line end. Bytes that aren't UTF-8, as file names may hold, are replaced.
std::string jsonText(const nlohmann::ordered_json& document);

}  // namespace orv::host
