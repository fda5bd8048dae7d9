// The layout of an FLV file and of its tags, once, for messages, engine and host.
// The numbers are those of the published FLV file format, version 10.1, annex E.

#pragma once

#include <bit>
#include <cstring>

#include "platform/Types.h"

namespace orv::flv {

// File header: "FLV", a version byte, a flags byte, the header's size; then the 4-byte size field in front of
// the first tag, which is 0.
inline constexpr u32 kFileHeaderSize = 9;
inline constexpr u32 kSizeFieldSize = 4;
inline constexpr u32 kFirstTagPosition = kFileHeaderSize + kSizeFieldSize;
inline constexpr u32 kTypeFlagsPosition = 4;
inline constexpr u32 kHeaderSizePosition = 5;

// A tag: 11 header bytes, its data, and a trailing field that holds data size + 11.
inline constexpr u32 kTagHeaderSize = 11;
inline constexpr u32 kTagOverhead = kTagHeaderSize + kSizeFieldSize;
inline constexpr u32 kMaxTagDataSize = 0xFFFFFF;

// Tag and message types.
inline constexpr u8 kTypeAudio = 8;
inline constexpr u8 kTypeVideo = 9;
inline constexpr u8 kTypeDataAmf3 = 15;
inline constexpr u8 kTypeCommandAmf3 = 17;
inline constexpr u8 kTypeDataAmf0 = 18;
inline constexpr u8 kTypeCommandAmf0 = 20;
inline constexpr u8 kTypeAggregate = 22;
inline constexpr u8 kFilterBit = 0x20;  // Set in the type byte of an encrypted tag.
inline constexpr u8 kTypeMask = 0x5F;   // A message's type: the type byte without bits 0x20 and 0x80.

// Script data.
inline bool isDataType(u8 type) {
  return type == kTypeDataAmf0 || type == kTypeDataAmf3;
}

// The first byte of a video tag's data: a frame type above a codec. Bit 7 marks an extended header (of
// the format's published extension for further codecs, version 2), in which the codec's FourCC follows.
inline constexpr u8 kFrameTypeKey = 1;
inline constexpr u8 kFrameTypeDisposable = 3;
inline constexpr u8 kFrameTypeInfo = 5;
inline constexpr u8 kVideoCodecH264 = 7;
inline constexpr u8 kExtendedVideo = 8;  // In the upper half.
inline u8 frameTypeOf(u8 firstByte) {
  return firstByte >> 4;
}
inline u8 videoCodecOf(u8 firstByte) {
  return firstByte & 0xF;
}
// Of an audio tag's data: the sound format, above other bits.
inline constexpr u8 kSoundFormatExtended = 9;
inline constexpr u8 kSoundFormatAac = 10;
inline u8 soundFormatOf(u8 firstByte) {
  return firstByte >> 4;
}

inline u32 readU24(const u8* bytes) {
  return u32{bytes[0]} << 16 | u32{bytes[1]} << 8 | bytes[2];
}
inline u32 readU32(const u8* bytes) {
  return u32{bytes[0]} << 24 | readU24(bytes + 1);
}

inline void writeU24(u8* bytes, u32 value) {
  bytes[0] = static_cast<u8>(value >> 16);
  bytes[1] = static_cast<u8>(value >> 8);
  bytes[2] = static_cast<u8>(value);
}
inline void writeU32(u8* bytes, u32 value) {
  const u32 bigEndian = __builtin_bswap32(value);
  std::memcpy(bytes, &bigEndian, sizeof bigEndian);
}

// A view of the 11 header bytes of a tag.
struct TagHeader {
  const u8* bytes;

  u8 typeByte() const { return bytes[0]; }
  u32 dataSize() const { return readU24(bytes + 1); }
  // Milliseconds: 24 low bits, then the 8 high ones.
  u32 time() const { return readU24(bytes + 4) | u32{bytes[7]} << 24; }
  u32 streamId() const { return readU24(bytes + 8); }
};

inline void writeTagHeader(u8* bytes, u8 typeByte, u32 dataSize, u32 time, u32 streamId = 0) {
  writeU32(bytes, u32{typeByte} << 24 | (dataSize & 0xFFFFFF));
  writeU32(bytes + 4, std::rotl(time, 8));
  writeU24(bytes + 8, streamId);
}

}  // namespace orv::flv
