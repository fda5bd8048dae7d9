// Finds what is there: every whole tag among any bytes, once, in the order of the file, and every stretch
// that is none. It goes through the bytes once, from front to back, and keeps 34 MiB of them at most.
//
// A tag is taken where the chain of sizes holds: its trailing field holds its size, or holds it in one of the
// ways that writers get wrong and a plausible header follows. Where the chain breaks, each later byte is
// tried as the start of a tag, with stronger evidence asked for: among bytes that are foreign nothing may
// pass by chance.
//
// Whoever needs no payloads gets through a seekable source faster: of a large tag of audio or video that its
// trailing field confirms, only the front is read. What is found is the same.

#pragma once

#include <optional>
#include <variant>

#include "host/flv/ByteWindow.h"
#include "host/flv/Tags.h"

namespace orv::host {

// Of a type that writers use, and of stream 0.
bool isPlausibleTagHeader(const flv::TagHeader& header);

// What a tag's trailing field says. Some writers leave it 0, and some leave the header's 11 bytes out of it.
enum class SizeField : u8 { exact, zero, withoutHeader, other };

enum class Payloads : u8 { whole, fronts };

// Valid, its data too, until the walk goes on. A walk for the fronts may hold only Tag::front().
struct WalkedTag {
  i64 position;
  Tag tag;
  std::optional<u32> sizeField;  // None where the file ends before it is whole.

  bool hasTrueSizeField() const { return sizeField == tag.size + flv::kTagHeaderSize; }
  i64 dataEnd() const { return position + flv::kTagHeaderSize + tag.size; }
};

enum class BreakKind : u8 {
  junk,          // No tag starts here.
  zeros,         // The same, and all its bytes are 0.
  damagedTag,    // Starts with a tag that isn't whole.
  secondHeader,  // The header of another file that was put behind.
  tornTail,      // The last tag, cut short.
};

// Bytes that belong to no whole tag.
struct Break {
  i64 from;
  i64 to;
  BreakKind kind;
  bool isTail;  // No tag follows.
};

class Walker {
 public:
  struct FileHeader {
    u8 version;
    u8 flags;
    u32 size;        // As claimed; tags are looked for at byte 13 too.
    u32 firstField;  // In the place of the size of a tag before the first; 0 in a sound file.
  };
  using Step = std::variant<WalkedTag, Break>;

  // Reads the header. `source` must outlive the walker.
  explicit Walker(ByteSource& source, Payloads payloads = Payloads::whole);

  // None if the bytes don't start as an FLV file does. The walk starts at their very first then.
  const std::optional<FileHeader>& header() const { return header_; }
  // Returns what comes next; none at the end. Throws what the source throws.
  std::optional<Step> next();
  // Where the next step starts: everything before has been returned.
  i64 position() const { return position_; }

 private:
  std::span<const u8> view(i64 position, std::size_t size) { return window_.view(position, size); }
  bool hasBytes(i64 position, std::size_t size) { return view(position, size).size() >= size; }
  bool isEnd(i64 position) { return view(position, 1).empty(); }

  void readHeader();
  WalkedTag take(i64 position, std::optional<u32> sizeField);
  std::optional<WalkedTag> readTag(i64 position);
  bool mayBeSkipped(std::span<const u8> header) const;
  bool isSizeFieldAt(i64 position, u32 value);
  std::optional<i64> fileHeaderEnd(i64 position);
  Break skipDamage();
  i64 findSound(i64 position, bool& onlyZeros);

  bool isOfThisStream(u32 streamId) const { return streamId == 0 || streamId == streamId_; }
  bool isPlausibleHeader(std::span<const u8> bytes) const;
  bool isForeignHeader(std::span<const u8> bytes) const;
  bool isPlausibleStart(i64 position, u32 timeBefore);
  bool isConfirmedStart(i64 position, u32 timeBefore, i64 limit);
  bool isFollowed(i64 position, u32 dataSize, u32 field, u32 time);
  bool isHabit(i64 position, u32 dataSize, u32 field);
  bool isSound(i64 position);
  bool mayStart(const u8* bytes) const;

  ByteSource& source_;
  const bool skips_;
  ByteWindow window_;
  std::optional<FileHeader> header_;
  i64 position_ = 0;
  u32 streamId_ = 0;                    // Of the last tag.
  SizeField habit_ = SizeField::exact;  // Of the last tag.
};

}  // namespace orv::host
