#include "host/flv/Walker.h"

#include <algorithm>
#include <cstring>

#include "host/flv/FlvNumbers.h"

namespace orv::host {

namespace {

constexpr u32 kLargestFileHeader = 1 << 20;  // A larger one is taken for damage.
constexpr u32 kNearMs = 3'600'000;           // Between neighbours; a live stream may well pause.

constexpr u32 kLargeTag = 32 << 10;  // Reading it through costs more than a jump.

// The types that writers use: audio, video, data, commands, aggregates.
bool isPlausibleType(u8 typeByte) {
  constexpr u32 kTypes = 1u << flv::kTypeAudio | 1u << flv::kTypeVideo | 1u << flv::kTypeDataAmf3 |
                         1u << flv::kTypeCommandAmf3 | 1u << flv::kTypeDataAmf0 |
                         1u << flv::kTypeCommandAmf0 | 1u << flv::kTypeAggregate;
  const u8 type = typeByte & static_cast<u8>(~flv::kFilterBit);
  return type < 32 && (kTypes >> type & 1);
}

SizeField fieldKind(u32 field, u32 dataSize) {
  if (field == dataSize + flv::kTagHeaderSize) return SizeField::exact;
  if (field == 0) return SizeField::zero;
  return field == dataSize ? SizeField::withoutHeader : SizeField::other;
}

bool areNear(u32 a, u32 b) {
  return (a > b ? a - b : b - a) <= kNearMs;
}

bool isSignature(std::span<const u8> bytes) {
  return bytes.size() >= flv::kFileHeaderSize &&
         std::memcmp(bytes.data(), fileHeader(0).data(), flv::kTypeFlagsPosition) == 0;
}

// The bytes of `part` at the front of a size field that is cut short agree with this size as far as they go.
bool isCutField(std::span<const u8> part, u32 dataSize) {
  u8 whole[flv::kSizeFieldSize];
  flv::writeU32(whole, dataSize + flv::kTagHeaderSize);
  return std::equal(part.begin(), part.end(), whole);
}

// Index of the first byte at or behind `from` that isn't 0, or `end`.
std::size_t skipZeros(const u8* bytes, std::size_t from, std::size_t end) {
  for (u64 word; from + sizeof word <= end; from += sizeof word) {
    std::memcpy(&word, bytes + from, sizeof word);
    if (word != 0) break;
  }
  while (from < end && bytes[from] == 0) ++from;
  return from;
}

}  // namespace

bool isPlausibleTagHeader(const flv::TagHeader& header) {
  return isPlausibleType(header.typeByte()) && header.streamId() == 0;
}

Walker::Walker(ByteSource& source, Payloads payloads)
    : source_(source), skips_(payloads == Payloads::fronts && source.isSeekable()), window_(source) {
  readHeader();
}

void Walker::readHeader() {
  const std::span<const u8> bytes = view(0, flv::kFirstTagPosition);
  if (bytes.size() < flv::kFileHeaderSize ||
      std::memcmp(bytes.data(), kSignature.data(), kSignature.size()) != 0)
    return;
  const u32 size = flv::readU32(&bytes[flv::kHeaderSizePosition]);
  const u32 field = bytes.size() >= flv::kFirstTagPosition ? flv::readU32(&bytes[flv::kFileHeaderSize]) : 0;
  header_ = {bytes[kVersionPosition], bytes[flv::kTypeFlagsPosition], size, field};
  position_ = flv::kFirstTagPosition;
  if (size <= flv::kFileHeaderSize || size > kLargestFileHeader) return;
  const i64 first = i64{size} + flv::kSizeFieldSize;
  if (isPlausibleHeader(view(first, flv::kTagHeaderSize))) position_ = first;
}

std::optional<Walker::Step> Walker::next() {
  window_.forget(position_);
  if (isEnd(position_)) return std::nullopt;
  if (const auto tag = readTag(position_)) {
    position_ = tag->dataEnd() + flv::kSizeFieldSize;
    streamId_ = tag->tag.streamId;
    habit_ = fieldKind(tag->sizeField.value_or(0), tag->tag.size);
    return *tag;
  }
  return skipDamage();
}

WalkedTag Walker::take(i64 position, std::optional<u32> sizeField) {
  const u8* const bytes = view(position, flv::kTagHeaderSize + Tag::kFrontSize).data();
  const flv::TagHeader header{bytes};
  return {
      position,
      {header.typeByte(), header.time(), header.streamId(), bytes + flv::kTagHeaderSize, header.dataSize()},
      sizeField};
}

// What goes on in the chain.
std::optional<WalkedTag> Walker::readTag(i64 position) {
  std::span<const u8> bytes = view(position, flv::kTagHeaderSize);
  if (bytes.size() < flv::kTagHeaderSize) return std::nullopt;
  const u32 size = flv::TagHeader{bytes.data()}.dataSize();
  const u32 time = flv::TagHeader{bytes.data()}.time();
  const u32 withHeader = size + flv::kTagHeaderSize;
  if (mayBeSkipped(bytes) && isSizeFieldAt(position + withHeader, withHeader))
    return take(position, withHeader);
  bytes = view(position, withHeader + flv::kSizeFieldSize);
  if (bytes.size() < withHeader) return std::nullopt;
  if (bytes.size() < withHeader + flv::kSizeFieldSize) {
    const bool isWhole = isPlausibleHeader(bytes) && isCutField(bytes.subspan(withHeader), size);
    return isWhole ? std::optional(take(position, std::nullopt)) : std::nullopt;
  }
  const u32 field = flv::readU32(&bytes[withHeader]);
  if (field == withHeader || isFollowed(position, size, field, time)) {
    return take(position, field);
  }
  return std::nullopt;
}

// Metadata are read whole.
bool Walker::mayBeSkipped(std::span<const u8> header) const {
  if (!skips_ || flv::TagHeader{header.data()}.dataSize() < kLargeTag) return false;
  const u8 type = flv::TagHeader{header.data()}.typeByte();
  return type == flv::kTypeAudio || type == flv::kTypeVideo;
}

// Leaves the window where it is.
bool Walker::isSizeFieldAt(i64 position, u32 value) {
  u8 field[flv::kSizeFieldSize];
  return source_.read(position, field, sizeof field) == sizeof field && flv::readU32(field) == value;
}

// Whether what stands behind a tag speaks for it, though its size field `field` doesn't.
bool Walker::isFollowed(i64 position, u32 dataSize, u32 field, u32 time) {
  const i64 behind = position + dataSize + flv::kTagOverhead;
  const bool isPlausible = isPlausibleHeader(view(position, flv::kTagHeaderSize));
  if (isPlausible && isEnd(behind)) return true;
  if (isPlausible && fieldKind(field, dataSize) != SizeField::other) {
    return isPlausibleHeader(view(behind, flv::kTagHeaderSize)) || fileHeaderEnd(behind) ||
           isHabit(position, dataSize, field);
  }
  if (!isPlausible && !isForeignHeader(view(position, flv::kTagHeaderSize))) return false;
  return isConfirmedStart(behind, time, position + i64{ByteWindow::kMostAtOnce});
}

// Whether the tag before had the same kind of size field, and this one doesn't look overwritten.
bool Walker::isHabit(i64 position, u32 dataSize, u32 field) {
  if (habit_ != fieldKind(field, dataSize)) return false;
  if (habit_ != SizeField::zero) return true;
  const std::span<const u8> bytes = view(position, dataSize + flv::kTagOverhead);
  return dataSize >= flv::kSizeFieldSize &&
         flv::readU32(&bytes[dataSize + flv::kTagHeaderSize - flv::kSizeFieldSize]) != 0;
}

bool Walker::isPlausibleHeader(std::span<const u8> bytes) const {
  return bytes.size() >= flv::kTagHeaderSize && isPlausibleType(bytes[0]) &&
         isOfThisStream(flv::TagHeader{bytes.data()}.streamId());
}

// Of a type that nobody knows.
bool Walker::isForeignHeader(std::span<const u8> bytes) const {
  return bytes[0] != 0 && !isPlausibleType(bytes[0]) &&
         isOfThisStream(flv::TagHeader{bytes.data()}.streamId());
}

bool Walker::isPlausibleStart(i64 position, u32 timeBefore) {
  const std::span<const u8> bytes = view(position, flv::kTagHeaderSize);
  return isPlausibleHeader(bytes) && areNear(flv::TagHeader{bytes.data()}.time(), timeBefore);
}

// Also asks the trailing field of the tag that starts there, or what follows it; nothing at `limit` or behind
// is looked at.
bool Walker::isConfirmedStart(i64 position, u32 timeBefore, i64 limit) {
  if (!isPlausibleStart(position, timeBefore)) return false;
  const flv::TagHeader header{view(position, flv::kTagHeaderSize).data()};
  const u32 size = header.dataSize(), time = header.time();
  const i64 behind = position + size + flv::kTagOverhead;
  if (behind + flv::kTagHeaderSize > limit) return false;
  const std::span<const u8> bytes = view(position, size + flv::kTagOverhead);
  if (bytes.size() < size + flv::kTagOverhead) return false;
  const u32 field = flv::readU32(&bytes[size + flv::kTagHeaderSize]);
  if (field == size + flv::kTagHeaderSize) return true;
  return isEnd(behind) || isPlausibleStart(behind, time);
}

// What starts behind a break: by its own size field, or by a chain of headers.
bool Walker::isSound(i64 position) {
  if (fileHeaderEnd(position)) return true;
  std::span<const u8> bytes = view(position, flv::kTagHeaderSize);
  if (!isOfThisStream(flv::TagHeader{bytes.data()}.streamId())) return false;
  const flv::TagHeader header{bytes.data()};
  const u32 size = header.dataSize(), time = header.time();
  const bool isPlausible = isPlausibleHeader(bytes);
  bytes = view(position, size + flv::kTagOverhead);
  if (bytes.size() < size + flv::kTagOverhead) return false;
  const u32 field = flv::readU32(&bytes[size + flv::kTagHeaderSize]);
  const i64 behind = position + size + flv::kTagOverhead;
  if (field == size + flv::kTagHeaderSize) {
    return isPlausible || isEnd(behind) || isPlausibleStart(behind, time);
  }
  return isPlausible && isConfirmedStart(behind, time, position + i64{ByteWindow::kMostAtOnce});
}

// Where the tags of another file start, if its header stands at `position` and a tag follows it.
std::optional<i64> Walker::fileHeaderEnd(i64 position) {
  const std::span<const u8> bytes = view(position, flv::kFirstTagPosition);
  if (!isSignature(bytes)) return std::nullopt;
  const u32 size = flv::readU32(&bytes[flv::kHeaderSizePosition]);
  if (size < flv::kFileHeaderSize || size > kLargestFileHeader) return std::nullopt;
  const i64 first = position + size + flv::kSizeFieldSize;
  if (!isEnd(first) && !isPlausibleHeader(view(first, flv::kTagHeaderSize))) return std::nullopt;
  return first;
}

Break Walker::skipDamage() {
  const i64 from = position_;
  if (const auto first = fileHeaderEnd(from)) {
    position_ = *first;
    return {from, position_, BreakKind::secondHeader, isEnd(position_)};
  }
  const std::span<const u8> bytes = view(from, flv::kTagHeaderSize);
  const bool startsAsTag =
      bytes.size() < flv::kTagHeaderSize ? isPlausibleType(bytes[0]) : isPlausibleHeader(bytes);
  bool onlyZeros = bytes[0] == 0;
  position_ = findSound(from + 1, onlyZeros);
  const bool isTail = isEnd(position_);
  const BreakKind kind = onlyZeros      ? BreakKind::zeros
                         : !startsAsTag ? BreakKind::junk
                         : isTail       ? BreakKind::tornTail
                                        : BreakKind::damagedTag;
  return {from, position_, kind, isTail};
}

// Returns where a tag or another file's header starts, at or behind `position`; else the end.
i64 Walker::findSound(i64 position, bool& onlyZeros) {
  for (;;) {
    window_.forget(position);
    const std::span<const u8> bytes = view(position, flv::kTagHeaderSize);
    if (bytes.size() < flv::kTagHeaderSize) {
      const std::size_t zeros = skipZeros(bytes.data(), 0, bytes.size());
      onlyZeros = onlyZeros && zeros == bytes.size();
      return position + static_cast<i64>(bytes.size());
    }
    const std::size_t end = bytes.size() - flv::kTagHeaderSize + 1;
    std::size_t at = skipZeros(bytes.data(), 0, end);
    while (at < end && !mayStart(&bytes[at])) {
      onlyZeros = false;
      at = skipZeros(bytes.data(), at + 1, end);
    }
    position += static_cast<i64>(at);
    if (at == end) continue;
    if (isSound(position)) return position;
    onlyZeros = false;
    ++position;
  }
}

// Cheap, and true of few bytes among foreign ones.
bool Walker::mayStart(const u8* bytes) const {
  return isOfThisStream(flv::TagHeader{bytes}.streamId()) || bytes[0] == kSignature[0];
}

}  // namespace orv::host
