#include "host/flv/FlvNames.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>

namespace orv::host {

namespace {

constexpr const char* kOther = "other";

struct CodecName {
  CodecId id;
  const char* name;
};

constexpr CodecName kVideoCodecs[] = {
    {2, "H.263 (Sorenson)"},   {3, "Screen video"},       {4, "VP6"},
    {5, "VP6 with alpha"},     {6, "Screen video 2"},     {kCodecAvc, "H.264"},
    {kCodecHevc, "H.265"},     {fourCc("avc1"), "H.264"}, {fourCc("hvc1"), "H.265"},
    {fourCc("vvc1"), "H.266"}, {fourCc("av01"), "AV1"},   {fourCc("vp08"), "VP8"},
    {fourCc("vp09"), "VP9"},
};

constexpr CodecName kAudioCodecs[] = {
    {0, "PCM"},
    {1, "ADPCM"},
    {2, "MP3"},
    {3, "PCM"},
    {4, "Nellymoser 16 kHz"},
    {5, "Nellymoser 8 kHz"},
    {6, "Nellymoser"},
    {7, "G.711 A-law"},
    {8, "G.711 mu-law"},
    {kCodecAac, "AAC"},
    {11, "Speex"},
    {14, "MP3 8 kHz"},
    {fourCc("Opus"), "Opus"},
    {fourCc("fLaC"), "FLAC"},
    {fourCc("ac-3"), "AC-3"},
    {fourCc("ec-3"), "E-AC-3"},
    {fourCc(".mp3"), "MP3"},
    {fourCc("mp4a"), "AAC"},
};

const char* nameIn(std::span<const CodecName> table, CodecId id) {
  const auto found = std::ranges::find(table, id, &CodecName::id);
  return found == table.end() ? nullptr : found->name;
}

// The four characters, with a dot for what can't be shown.
std::string fourCcText(CodecId id) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char letter = static_cast<char>(id >> shift);
    text += letter >= ' ' && letter <= '~' ? letter : '.';
  }
  return text;
}

// The rate and channels that the tag byte states mean something with these codecs alone; the others say them
// in their data or have fixed ones.
bool statesFormat(const MediaHead& head) {
  return !head.isVideo && !head.isExtended && (*head.codec <= 3 || *head.codec == 6);
}

std::string formatText(u8 first) {
  constexpr const char* kRates[] = {"5.5", "11", "22", "44.1"};
  return fmt::format(", {} kHz, {}, {} bit", kRates[first >> 2 & 3], first & 1 ? "stereo" : "mono",
                     first & 2 ? 16 : 8);
}

}  // namespace

const char* videoCodecName(CodecId id) {
  return nameIn(kVideoCodecs, id);
}

const char* audioCodecName(CodecId id) {
  return nameIn(kAudioCodecs, id);
}

std::string codecNameText(const MediaHead& head) {
  if (!head.codec) return "unknown codec";
  const char* const known = head.isVideo ? videoCodecName(*head.codec) : audioCodecName(*head.codec);
  const std::string name = known ? known : "unknown codec";
  if (*head.codec <= kMaxClassicCodec) return known ? name : fmt::format("{} {}", name, *head.codec);
  return fmt::format("{} ({})", name, fourCcText(*head.codec));
}

const char* packetName(Packet packet) {
  switch (packet) {
    case Packet::frames:
      return "frames";
    case Packet::setup:
      return "set-up";
    case Packet::end:
      return "end";
    case Packet::information:
      return "information";
    case Packet::command:
      return "command";
    case Packet::unknown:
      break;
  }
  return "unknown";
}

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
  const auto head = mediaHead(tag);
  if (!head) return "encrypted";
  const std::string name = codecNameText(*head) + (head->isMultitrack ? ", multitrack" : "");
  return head->codec && statesFormat(*head) ? name + formatText(tag.data[0]) : name;
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

}  // namespace orv::host
