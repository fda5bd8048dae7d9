#include "FlvNames.h"

#include <fmt/format.h>

namespace orv::host {

namespace {

constexpr const char* kOther = "other";
constexpr u8 kFrameKey = 1;
constexpr u8 kPacketSetup = 0;  // Second byte of an AVC or AAC tag.

}  // namespace

const char* videoCodecName(u32 id) {
  switch (id) {
    case 2:
      return "H.263 (Sorenson)";
    case 3:
      return "Screen video";
    case 4:
      return "VP6";
    case 5:
      return "VP6 with alpha";
    case 6:
      return "Screen video 2";
    case kCodecAvc:
      return "H.264";
    default:
      return nullptr;
  }
}

const char* audioCodecName(u32 id) {
  switch (id) {
    case 0:
    case 3:
      return "PCM";
    case 1:
      return "ADPCM";
    case 2:
      return "MP3";
    case 4:
      return "Nellymoser 16 kHz";
    case 5:
      return "Nellymoser 8 kHz";
    case 6:
      return "Nellymoser";
    case 7:
      return "G.711 A-law";
    case 8:
      return "G.711 mu-law";
    case kCodecAac:
      return "AAC";
    case 11:
      return "Speex";
    case 14:
      return "MP3 8 kHz";
    default:
      return nullptr;
  }
}

namespace {

// The rate and channels that the tag byte states mean something with these codecs alone; the others say them
// in their data or have fixed ones.
bool statesFormat(u8 codec) {
  return codec <= 3 || codec == 6;
}

std::string audioText(u8 first) {
  constexpr const char* kRates[] = {"5.5", "11", "22", "44.1"};
  const u8 codec = first >> 4;
  const char* const name = audioCodecName(codec);
  if (!name) return fmt::format("unknown codec {}", codec);
  if (!statesFormat(codec)) return name;
  return fmt::format("{}, {} kHz, {}, {} bit", name, kRates[first >> 2 & 3], first & 1 ? "stereo" : "mono",
                     first & 2 ? 16 : 8);
}

}  // namespace

const char* tagTypeName(u8 type) {
  switch (type & flv::kTypeMask) {
    case flv::kTypeAudio:
      return "audio";
    case flv::kTypeVideo:
      return "video";
    case flv::kTypeDataAmf0:
    case flv::kTypeDataAmf3:
      return "data";
    case flv::kTypeCommandAmf0:
    case flv::kTypeCommandAmf3:
      return "command";
    default:
      return kOther;
  }
}

bool isKnownType(u8 type) {
  return tagTypeName(type) != kOther;
}

std::string codecText(const Tag& tag) {
  if (tag.size == 0 || (!tag.isAudio() && !tag.isVideo())) return {};
  if (tag.isEncrypted()) return "encrypted";
  if (tag.isAudio()) return audioText(tag.data[0]);
  const u8 codec = tag.data[0] & 15;
  const char* const name = videoCodecName(codec);
  return name ? name : fmt::format("unknown codec {}", codec);
}

std::string flagsText(u32 flags) {
  const bool audio = flags & kFlagAudio;
  const bool video = flags & kFlagVideo;
  return audio && video ? "audio, video" : audio ? "audio" : video ? "video" : "none";
}

const char* headRecordName(u32 trackId) {
  switch (trackId) {
    case kTrackMetaData:
      return "onMetaData";
    case kTrackAdditionalHeader:
      return "|AdditionalHeader";
    case kTrackXmpData:
      return "onXMPData";
    default:
      return "control";
  }
}

bool isCodecSetup(const Tag& tag) {
  if (tag.isEncrypted() || tag.size < 2 || tag.data[1] != kPacketSetup) return false;
  return (tag.isVideo() && (tag.data[0] & 15) == kCodecAvc) ||
         (tag.isAudio() && tag.data[0] >> 4 == kCodecAac);
}

bool isKeyFrame(const Tag& tag) {
  return tag.isVideo() && !tag.isEncrypted() && tag.size > 0 && tag.data[0] >> 4 == kFrameKey &&
         !isCodecSetup(tag);
}

}  // namespace orv::host
