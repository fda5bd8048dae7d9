// What the numbers in tags mean to a person. The published FLV format names them.

#pragma once

#include <string>

#include "host/flv/MediaHead.h"

namespace orv::host {

const char* tagTypeName(u8 type);  // "audio", "video", "data", ...
bool isKnownType(u8 type);
// Null for a number that names no codec.
const char* videoCodecName(CodecId id);
const char* audioCodecName(CodecId id);
// "H.264", "H.264 (avc1)"; "unknown codec 15", "unknown codec (abcd)".
std::string codecNameText(const MediaHead& head);
// With what a classic audio tag states of its format: "MP3, 44.1 kHz, stereo, 16 bit". "" for other than
// media.
std::string codecText(const Tag& tag);
const char* packetName(Packet packet);  // "frames", "set-up", ...
std::string flagsText(u32 flags);       // Of the file header: "audio, video"

const char* headRecordName(u32 trackId);  // "onMetaData", ...

// Whether decoding can start at `tag`: a key frame of video, a codec's set-up record excluded.
inline bool isKeyFrame(const Tag& tag) {
  const auto head = mediaHead(tag);
  return head && head->isKeyFrame;
}
// Whether `tag` sets up a decoder: a player that starts in the middle of a file needs it first.
inline bool isCodecSetup(const Tag& tag) {
  const auto head = mediaHead(tag);
  return head && head->isSetup();
}

}  // namespace orv::host
