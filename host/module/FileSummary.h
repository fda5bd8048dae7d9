// What a file holds, as the module reports it and its first tags show.

#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "host/flv/MetadataClaims.h"
#include "host/flv/WholeTags.h"
#include "host/module/PlayOut.h"
#include "host/module/Session.h"

namespace orv::host {

// Every whole tag of a file, those behind damage too.
struct TagCount {
  std::map<u8, PlayTally::Kind> kinds;  // By type byte.
  u64 damages = 0;                      // Bytes between tags that belong to none, and sizes that lie.

  u64 tags() const;
  u64 bytesOf(u8 plainType) const;  // Of data.
};

struct FileSummary {
  struct FirstTag {
    u32 time;
    std::string codec;
    std::optional<u32> codecId;  // None where the tag doesn't hold it.
    bool isKeyFrame;
  };
  struct Head {
    u32 trackId;
    u32 size;
  };

  std::string name;
  i64 fileSize;
  i64 playableEnd;   // Where the last tag ends that a player finds.
  WholeTags hidden;  // Behind it; no player finds them for the torn end that follows.
  i64 endPosition;   // 0 if nothing is playable.
  u32 firstTime;     // Of the first medium that was seen.
  u32 duration;      // The time of the last tag.
  u32 typeFlags;
  u32 memoryOverhead;
  std::optional<FirstTag> video;  // Among the tags that were seen: all, or those of the first segments.
  std::optional<FirstTag> audio;
  std::optional<u32> width;  // As the metadata say.
  std::optional<u32> height;
  std::optional<double> frameRate;  // Of the video tags that were seen, a second.
  std::vector<Head> headRecords;
  std::vector<Claim> claims;      // Of the metadata.
  std::optional<TagCount> count;  // If the whole file was counted.

  i64 bytesBehind() const { return fileSize - playableEnd; }
  // Bits a second of `bytes` spread over the file's time; none if it has no length.
  std::optional<double> bitRate(u64 bytes) const;
};

enum class Depth { front, wholeFile };

// The front costs a few host calls whatever the file's length; counting walks through all of it.
FileSummary summarize(Stream& stream, Depth depth);

std::string summaryText(const FileSummary& summary);
nlohmann::ordered_json summaryJson(const FileSummary& summary);

// A time as JSON: {"ms": 5040, "text": "00:00:05.040"}.
nlohmann::ordered_json timeJson(u32 time);
nlohmann::ordered_json boundsJson(const SegmentBounds& bounds);
// The document's text, with a line end. Bytes that aren't UTF-8, as file names may hold, are replaced.
std::string jsonText(const nlohmann::ordered_json& document);

}  // namespace orv::host
