// The numbers in FLV files beside those of the tag layout in server/FLVTag.h: of the file header, of codecs,
// and of the extended form of media payloads. The published FLV format, version 10.1, and its extension for
// further codecs, version 2, define them.

#pragma once

#include <array>

#include "server/FLVTag.h"

namespace orv::host {

// The file header.
inline constexpr std::array<u8, 3> kSignature{'F', 'L', 'V'};
inline constexpr u32 kVersionPosition = 3;
inline constexpr u8 kVersion = 1;
// Bits of its type flags.
inline constexpr u8 kFlagVideo = 1;
inline constexpr u8 kFlagAudio = 4;

// Returns the bytes in front of the first tag.
inline std::array<u8, flv::kFirstTagPosition> fileHeader(u8 flags) {
  return {kSignature[0], kSignature[1], kSignature[2], kVersion, flags, 0, 0, 0, flv::kFileHeaderSize};
}

// A codec: the classic number, 0 to 15, or four characters, the first in the high byte. Metadata name codecs
// by the same numbers.
using CodecId = u32;
inline constexpr CodecId kMaxClassicCodec = 15;

constexpr CodecId fourCc(const char (&text)[5]) {
  CodecId id = 0;
  for (int i = 0; i < 4; ++i) id = id << 8 | static_cast<u8>(text[i]);
  return id;
}

// Of video.
inline constexpr CodecId kH263 = 2;
inline constexpr CodecId kScreenVideo = 3;
inline constexpr CodecId kVp6 = 4;
inline constexpr CodecId kVp6WithAlpha = 5;
inline constexpr CodecId kScreenVideo2 = 6;
inline constexpr CodecId kAvc = flv::kVideoCodecH264;
inline constexpr CodecId kHevc = 12;  // In no published table, but in wide use; laid out like AVC.
inline constexpr CodecId kExtendedAvc = fourCc("avc1");
inline constexpr CodecId kExtendedHevc = fourCc("hvc1");
inline constexpr CodecId kExtendedVvc = fourCc("vvc1");
inline constexpr CodecId kAv1 = fourCc("av01");
inline constexpr CodecId kVp8 = fourCc("vp08");
inline constexpr CodecId kVp9 = fourCc("vp09");

// Of audio.
inline constexpr CodecId kPcm = 0;
inline constexpr CodecId kAdpcm = 1;
inline constexpr CodecId kMp3 = 2;
inline constexpr CodecId kPcmLittleEndian = 3;
inline constexpr CodecId kNellymoser16kHz = 4;
inline constexpr CodecId kNellymoser8kHz = 5;
inline constexpr CodecId kNellymoser = 6;
inline constexpr CodecId kALaw = 7;
inline constexpr CodecId kMuLaw = 8;
inline constexpr CodecId kAac = flv::kSoundFormatAac;
inline constexpr CodecId kSpeex = 11;
inline constexpr CodecId kMp38kHz = 14;
inline constexpr CodecId kOpus = fourCc("Opus");
inline constexpr CodecId kFlac = fourCc("fLaC");
inline constexpr CodecId kAc3 = fourCc("ac-3");
inline constexpr CodecId kEac3 = fourCc("ec-3");
inline constexpr CodecId kExtendedMp3 = fourCc(".mp3");
inline constexpr CodecId kExtendedAac = fourCc("mp4a");

// The first byte of a classic audio tag's data, below the codec. With these codecs alone it states the true
// rate and width; the others say them in their data or have fixed ones.
inline bool statesFormat(CodecId classicAudio) {
  return classicAudio <= kPcmLittleEndian || classicAudio == kNellymoser;
}
inline u32 rateIndexOf(u8 firstByte) {  // 5.5, 11, 22, 44.1 kHz.
  return firstByte >> 2 & 3u;
}
inline u32 sampleBitsOf(u8 firstByte) {
  return firstByte & 2 ? 16 : 8;
}
inline bool isStereo(u8 firstByte) {
  return (firstByte & 1) != 0;
}

// Packet types of the extended form; audio and video share those that both have.
enum ExtendedPacket : u8 {
  kSequenceStart = 0,
  kCodedFrames = 1,
  kSequenceEnd = 2,
  kCodedFramesX = 3,  // Without a composition time, which is 0.
  kMetadata = 4,
  kTransportSequenceStart = 5,
  kAudioMultitrack = 5,
  kVideoMultitrack = 6,
  kModifier = 7,
};
inline u8 packetTypeOf(u32 byte) {  // Below the frame type, the sound format, or the kind of multitrack.
  return byte & 15;
}

}  // namespace orv::host
