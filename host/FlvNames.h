// What the numbers in tags mean to a person. The published FLV format names them.

#pragma once

#include <string>

#include "Tags.h"

namespace orv::host {

// Bits of the type flags in the file header.
inline constexpr u8 kFlagAudio = 4;
inline constexpr u8 kFlagVideo = 1;

// Codecs that the module plays, and doesn't record.
inline constexpr u8 kCodecAvc = 7;   // Low half of a video tag's first byte.
inline constexpr u8 kCodecAac = 10;  // High half of an audio tag's.

const char* tagTypeName(u8 type);  // "audio", "video", "data", ...
bool isKnownType(u8 type);
// Null for a number that names no codec.
const char* videoCodecName(u32 id);
const char* audioCodecName(u32 id);
// Of a media tag with data that isn't encrypted.
inline u32 codecId(const Tag& tag) {
  return tag.isVideo() ? tag.data[0] & 15 : tag.data[0] >> 4;
}
std::string codecText(const Tag& tag);  // "MP3, 44.1 kHz, stereo, 16 bit"; "" for other than media
std::string flagsText(u32 flags);       // Of the file header: "audio, video"

const char* headRecordName(u32 trackId);  // "onMetaData", ...

// Whether decoding can start at `tag`: a key frame of video, a codec's set-up record excluded.
bool isKeyFrame(const Tag& tag);
// Whether `tag` sets up a decoder (AVC, AAC): a player that starts in the middle of a file needs it first.
bool isCodecSetup(const Tag& tag);

}  // namespace orv::host
