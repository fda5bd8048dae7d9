#include "host/flv/PictureSize.h"

#include <algorithm>
#include <span>
#include <vector>

namespace orv::host {

namespace {

using Bytes = std::span<const u8>;

constexpr std::size_t kAv1Record = 4;     // Bytes of a set-up record before its units.
constexpr std::size_t kClassicSetup = 5;  // A set-up record follows codec, packet type and composition time.

// Reads bits in order. Those behind the end are 0, and failed() is true from then on.
class BitReader {
 public:
  explicit BitReader(Bytes bytes) : bytes_(bytes) {}

  u32 bits(u32 count) {
    u32 value = 0;
    while (count-- > 0) value = value << 1 | bit();
    return value;
  }
  void skip(u32 count) { at_ += count; }
  // A number in the Exponential-Golomb code of H.264 and H.265.
  u32 golomb() {
    u32 zeros = 0;
    while (zeros < 32 && !failed() && bit() == 0) ++zeros;
    return zeros < 32 ? (1u << zeros) - 1 + bits(zeros) : 0;
  }
  i32 signedGolomb() {
    const u32 code = golomb();
    return code & 1 ? static_cast<i32>(code / 2 + 1) : -static_cast<i32>(code / 2);
  }
  bool failed() const { return at_ > bytes_.size() * 8; }

 private:
  u32 bit() {
    const std::size_t at = at_++;
    return at < bytes_.size() * 8 ? bytes_[at / 8] >> (7 - at % 8) & 1u : 0;
  }

  const Bytes bytes_;
  std::size_t at_ = 0;
};

std::optional<PictureSize> sizeOf(const BitReader& reader, u32 width, u32 height) {
  if (reader.failed() || width == 0 || height == 0 || width > 65536 || height > 65536) return std::nullopt;
  return PictureSize{width, height};
}

std::optional<PictureSize> h263Size(Bytes frame) {
  constexpr PictureSize kSizes[] = {{352, 288}, {176, 144}, {128, 96}, {320, 240}, {160, 120}};
  BitReader reader(frame);
  reader.skip(17 + 5 + 8);  // Start code, version, temporal reference.
  const u32 code = reader.bits(3);
  if (code >= 2) return code < 7 ? std::optional(kSizes[code - 2]) : std::nullopt;
  const u32 length = code == 0 ? 8 : 16;
  const u32 width = reader.bits(length);
  return sizeOf(reader, width, reader.bits(length));
}

std::optional<PictureSize> screenSize(Bytes frame) {
  BitReader reader(frame);
  reader.skip(4);
  const u32 width = reader.bits(12);
  reader.skip(4);
  return sizeOf(reader, width, reader.bits(12));
}

// Coded in blocks of 16; the first byte says how much of the last ones isn't shown.
std::optional<PictureSize> vp6Size(Bytes frame, bool hasAlpha) {
  if (frame.size() < 8) return std::nullopt;
  const u32 cropX = frame[0] >> 4, cropY = frame[0] & 15;
  BitReader reader(frame.subspan(hasAlpha ? 4 : 1));
  reader.skip(1 + 6);
  const bool isSeparated = reader.bits(1) != 0;
  reader.skip(5);
  const bool isSimpleProfile = reader.bits(2) == 0;
  reader.skip(1);
  if (isSeparated || isSimpleProfile) reader.skip(16);  // Place of a second partition.
  const u32 rows = reader.bits(8), columns = reader.bits(8);
  if (columns * 16 <= cropX || rows * 16 <= cropY) return std::nullopt;
  return sizeOf(reader, columns * 16 - cropX, rows * 16 - cropY);
}

// A key frame of VP8: a tag of 3 bytes, a start code, and two numbers with their scales.
std::optional<PictureSize> vp8Size(Bytes frame) {
  if (frame.size() < 10 || frame[3] != 0x9D || frame[4] != 0x01 || frame[5] != 0x2A) return std::nullopt;
  const auto number = [&](std::size_t at) { return (frame[at] | u32{frame[at + 1]} << 8) & 0x3FFF; };
  return sizeOf(BitReader(frame), number(6), number(8));
}

// The head of a key frame of VP9.
std::optional<PictureSize> vp9Size(Bytes frame) {
  constexpr u32 kFrameMarker = 2, kSyncCode = 0x498342, kRgb = 7;
  BitReader reader(frame);
  if (reader.bits(2) != kFrameMarker) return std::nullopt;
  const u32 low = reader.bits(1), profile = low | reader.bits(1) << 1;
  if (profile == 3) reader.skip(1);
  if (reader.bits(2) != 0) return std::nullopt;  // Shows an earlier frame, or is no key frame.
  reader.skip(2);
  if (reader.bits(24) != kSyncCode) return std::nullopt;
  if (profile >= 2) reader.skip(1);  // Depth.
  const bool isRgb = reader.bits(3) == kRgb;
  if (!isRgb) reader.skip(1);  // Range.
  if (profile & 1) reader.skip(isRgb ? 1 : 3);
  const u32 width = reader.bits(16) + 1;
  return sizeOf(reader, width, reader.bits(16) + 1);
}

void skipAv1Timing(BitReader& reader) {
  reader.skip(32 + 32);
  if (reader.bits(1)) reader.golomb();
}

// Of the sequence header of AV1 behind its unit's own header.
std::optional<PictureSize> av1Size(Bytes unit) {
  BitReader reader(unit);
  reader.skip(3 + 1);
  if (reader.bits(1)) {  // Of a still picture, and short.
    reader.skip(5);
  } else {
    u32 delayBits = 0;
    if (reader.bits(1)) {
      skipAv1Timing(reader);
      if (reader.bits(1)) {
        delayBits = reader.bits(5) + 1;
        reader.skip(32 + 5 + 5);
      }
    }
    const bool hasDisplayDelay = reader.bits(1) != 0;
    for (u32 points = reader.bits(5) + 1; points > 0; --points) {
      reader.skip(12);
      if (reader.bits(5) > 7) reader.skip(1);
      if (delayBits > 0 && reader.bits(1)) reader.skip(2 * delayBits + 1);
      if (hasDisplayDelay && reader.bits(1)) reader.skip(4);
    }
  }
  const u32 widthBits = reader.bits(4) + 1, heightBits = reader.bits(4) + 1;
  const u32 width = reader.bits(widthBits) + 1;
  return sizeOf(reader, width, reader.bits(heightBits) + 1);
}

// A number in groups of 7 bits, the low ones first. Returns its bytes; 0 if it doesn't end or is too large.
std::size_t readLeb128(Bytes bytes, std::size_t* value) {
  *value = 0;
  for (std::size_t i = 0; i < std::min<std::size_t>(bytes.size(), 4); ++i) {
    *value |= std::size_t{bytes[i] & 127u} << 7 * i;
    if (!(bytes[i] & 128)) return i + 1;
  }
  return 0;
}

// Units of AV1, in a row: of the first sequence header.
std::optional<PictureSize> av1UnitsSize(Bytes units) {
  constexpr u32 kSequenceHeader = 1;
  while (!units.empty()) {
    const u8 first = units[0];
    units = units.subspan(std::min<std::size_t>(units.size(), first & 4 ? 2 : 1));
    std::size_t size = units.size();
    if (first & 2) {
      const std::size_t bytes = readLeb128(units, &size);
      if (bytes == 0 || size > units.size() - bytes) return std::nullopt;
      units = units.subspan(bytes);
    }
    if ((first >> 3 & 15) == kSequenceHeader) return av1Size(units.first(size));
    units = units.subspan(size);
  }
  return std::nullopt;
}

// A parameter set without the bytes that keep start codes out of it.
std::vector<u8> withoutEmulation(Bytes unit) {
  std::vector<u8> bytes;
  u32 zeros = 0;
  for (const u8 byte : unit) {
    if (zeros >= 2 && byte == 3) {
      zeros = 0;
      continue;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    bytes.push_back(byte);
  }
  return bytes;
}

void skipScalingList(BitReader& reader, u32 size) {
  i32 last = 8, next = 8;
  for (u32 i = 0; i < size && next != 0; ++i) {
    next = (last + reader.signedGolomb() + 256) % 256;
    if (next != 0) last = next;
  }
}

bool hasChromaFormat(u32 profile) {
  switch (profile) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118:
    case 128:
      return true;
    default:
      return false;
  }
}

// Of the H.264 sequence parameter set `unit`.
std::optional<PictureSize> avcSize(Bytes unit) {
  const std::vector<u8> bytes = withoutEmulation(unit);
  BitReader reader(bytes);
  reader.skip(8);
  const u32 profile = reader.bits(8);
  reader.skip(16);
  reader.golomb();
  u32 chroma = 1;
  if (hasChromaFormat(profile)) {
    chroma = reader.golomb();
    if (chroma == 3) reader.skip(1);
    reader.golomb(), reader.golomb(), reader.skip(1);
    if (reader.bits(1)) {
      for (u32 i = 0; i < (chroma == 3 ? 12u : 8u); ++i) {
        if (reader.bits(1)) skipScalingList(reader, i < 6 ? 16 : 64);
      }
    }
  }
  reader.golomb();
  const u32 orderType = reader.golomb();
  if (orderType == 0) reader.golomb();
  if (orderType == 1) {
    reader.skip(1), reader.golomb(), reader.golomb();
    for (u32 count = reader.golomb(); count > 0 && !reader.failed(); --count) reader.golomb();
  }
  reader.golomb(), reader.skip(1);
  const u32 columns = reader.golomb() + 1, rows = reader.golomb() + 1;
  const u32 fields = reader.bits(1) ? 1 : 2;
  if (fields == 2) reader.skip(1);
  reader.skip(1);
  u32 cropX = 0, cropY = 0;
  if (reader.bits(1)) {
    const u32 left = reader.golomb(), right = reader.golomb(), top = reader.golomb();
    cropX = (left + right) * (chroma == 1 || chroma == 2 ? 2 : 1);
    cropY = (top + reader.golomb()) * (chroma == 1 ? 2 : 1) * fields;
  }
  return sizeOf(reader, columns * 16 - cropX, rows * 16 * fields - cropY);
}

// Of the H.265 sequence parameter set `unit`.
std::optional<PictureSize> hevcSize(Bytes unit) {
  const std::vector<u8> bytes = withoutEmulation(unit);
  BitReader reader(bytes);
  reader.skip(16 + 4);
  const u32 layers = reader.bits(3);
  reader.skip(1 + 88 + 8);  // Profile and level.
  u32 layerBits = 0;
  for (u32 i = 0; i < layers; ++i) {
    if (reader.bits(1)) layerBits += 88;
    if (reader.bits(1)) layerBits += 8;
  }
  if (layers > 0) reader.skip(2 * (8 - layers));
  reader.skip(layerBits);
  reader.golomb();
  const u32 chroma = reader.golomb();
  if (chroma == 3) reader.skip(1);
  u32 width = reader.golomb(), height = reader.golomb();
  if (reader.bits(1)) {
    const u32 left = reader.golomb(), right = reader.golomb(), top = reader.golomb();
    width -= (left + right) * (chroma == 1 || chroma == 2 ? 2 : 1);
    height -= (top + reader.golomb()) * (chroma == 1 ? 2 : 1);
  }
  return sizeOf(reader, width, height);
}

// The first `size` bytes behind `at`, if they are there.
Bytes part(Bytes bytes, std::size_t at, std::size_t size) {
  return at <= bytes.size() && size <= bytes.size() - at ? bytes.subspan(at, size) : Bytes();
}

u32 readU16(Bytes bytes) {
  return bytes.size() < 2 ? 0 : u32{bytes[0]} << 8 | bytes[1];
}

// A configuration record: 5 bytes, the number of sequence parameter sets, and each with its length.
std::optional<PictureSize> avcRecordSize(Bytes record) {
  return avcSize(part(record, 8, readU16(part(record, 6, 2))));
}

// A configuration record: 22 bytes, then arrays of units of a type each.
std::optional<PictureSize> hevcRecordSize(Bytes record) {
  constexpr u32 kSequenceParameterSet = 33;
  if (record.size() < 23) return std::nullopt;
  std::size_t at = 23;
  for (u32 arrays = record[22]; arrays > 0 && at + 3 <= record.size(); --arrays) {
    const u32 type = record[at] & 63;
    u32 units = readU16(record.subspan(at + 1));
    for (at += 3; units > 0 && at + 2 <= record.size(); --units) {
      const u32 size = readU16(record.subspan(at));
      if (type == kSequenceParameterSet) return hevcSize(part(record, at + 2, size));
      at += 2 + size;
    }
  }
  return std::nullopt;
}

std::optional<PictureSize> setupSize(CodecId codec, Bytes record) {
  switch (codec) {
    case kAvc:
    case kExtendedAvc:
      return avcRecordSize(record);
    case kHevc:
    case kExtendedHevc:
      return hevcRecordSize(record);
    case kAv1:
      return record.size() > kAv1Record ? av1UnitsSize(record.subspan(kAv1Record)) : std::nullopt;
    default:
      return std::nullopt;
  }
}

std::optional<PictureSize> keyFrameSize(CodecId codec, Bytes frame) {
  switch (codec) {
    case kH263:
      return h263Size(frame);
    case kScreenVideo:
    case kScreenVideo2:
      return screenSize(frame);
    case kVp6:
    case kVp6WithAlpha:
      return vp6Size(frame, codec == kVp6WithAlpha);
    case kVp8:
      return vp8Size(frame);
    case kVp9:
      return vp9Size(frame);
    case kAv1:
      return av1UnitsSize(frame);
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<PictureSize> pictureSize(const Tag& tag, const MediaHead& head) {
  if (!head.isVideo || !head.codec || (!head.isKeyFrame && !head.isSetup())) return std::nullopt;
  const Bytes data = tag.front();
  if (!head.isSetup()) return keyFrameSize(*head.codec, data.subspan(head.size));
  const std::size_t record = head.isExtended ? head.size : kClassicSetup;
  return record < data.size() ? setupSize(*head.codec, data.subspan(record)) : std::nullopt;
}

}  // namespace orv::host
