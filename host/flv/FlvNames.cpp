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
    {kH263, "H.263 (Sorenson)"},
    {kScreenVideo, "Screen video"},
    {kVp6, "VP6"},
    {kVp6WithAlpha, "VP6 with alpha"},
    {kScreenVideo2, "Screen video 2"},
    {kAvc, "H.264"},
    {kHevc, "H.265"},
    {kExtendedAvc, "H.264"},
    {kExtendedHevc, "H.265"},
    {kExtendedVvc, "H.266"},
    {kAv1, "AV1"},
    {kVp8, "VP8"},
    {kVp9, "VP9"},
};

constexpr CodecName kAudioCodecs[] = {
    {kPcm, "PCM"},
    {kAdpcm, "ADPCM"},
    {kMp3, "MP3"},
    {kPcmLittleEndian, "PCM"},
    {kNellymoser16kHz, "Nellymoser 16 kHz"},
    {kNellymoser8kHz, "Nellymoser 8 kHz"},
    {kNellymoser, "Nellymoser"},
    {kALaw, "G.711 A-law"},
    {kMuLaw, "G.711 mu-law"},
    {kAac, "AAC"},
    {kSpeex, "Speex"},
    {kMp38kHz, "MP3 8 kHz"},
    {kOpus, "Opus"},
    {kFlac, "FLAC"},
    {kAc3, "AC-3"},
    {kEac3, "E-AC-3"},
    {kExtendedMp3, "MP3"},
    {kExtendedAac, "AAC"},
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

std::string formatText(u8 first) {
  constexpr const char* kRates[] = {"5.5", "11", "22", "44.1"};
  return fmt::format(", {} kHz, {}, {} bit", kRates[rateIndexOf(first)], isStereo(first) ? "stereo" : "mono",
                     sampleBitsOf(first));
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
  const bool isStated = !head->isVideo && !head->isExtended && head->codec && statesFormat(*head->codec);
  return isStated ? name + formatText(tag.data[0]) : name;
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
