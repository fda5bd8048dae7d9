// A cursor over bytes, with big-endian numbers, length-prefixed texts and one policy for failures.
//
// One object either reads bytes that somebody else owns, or writes into a buffer of its own. A read that runs
// past the end returns 0 or an empty text and is a soft failure: the reader throws KTBreakConnection if it
// was made so, else it goes sticky, so that every later read fails too and the caller asks once, by failed().
// Reading on a writer counts as such a failure; writing on a reader does nothing. Both are faults of the
// caller.

#pragma once

#include <bit>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/Types.h"

class KTParser {
 public:
  // How a text's length goes in front of it.
  enum TextKind : u8 {
    kShortText = 2,  // in 16 bits
    kLongText = 12,  // in 32 bits
  };
  static constexpr u32 kMaxShortText = 0xFFFF;

  // Makes a writer without a buffer yet.
  KTParser() : writing_(true) {}
  // Makes a reader. `data` must outlive it.
  KTParser(const u8* data, u32 length, bool throwOnError);
  KTParser(const KTParser&) = delete;
  KTParser& operator=(const KTParser&) = delete;

  bool failed() const { return failed_; }
  bool writing() const { return writing_; }
  i32 position() const { return position_; }
  // Returns the readable length; of a writer, what its buffer holds before it must grow.
  i32 limit() const { return limit_; }
  // Returns the number of bytes left to read.
  u32 remaining() const { return writing_ ? 0 : static_cast<u32>(limit_ - position_); }
  // Returns the encoding of the objects that are written: 0 for AMF0, 3 for AMF3.
  i32 encoding() const { return encoding_; }
  void setEncoding(i32 encoding) { encoding_ = encoding; }

  u8 readU8() { return readNumber<u8>(); }
  u16 readU16() { return readNumber<u16>(); }
  u32 readU32() { return readNumber<u32>(); }
  i64 readInt64() { return static_cast<i64>(readNumber<u64>()); }
  double readDouble() { return std::bit_cast<double>(readNumber<u64>()); }
  // Returns a copy of the text with a NUL behind it. May throw std::bad_alloc, as copyBytes may.
  std::unique_ptr<char[]> readString(TextKind kind);
  // Returns the text where it lies in the buffer, without a NUL.
  std::string_view viewString(TextKind kind) { return viewBytes(kind == kShortText ? readU16() : readU32()); }
  std::string_view viewBytes(u32 length) {
    const u8* const bytes = take(length);
    return {reinterpret_cast<const char*>(bytes), bytes ? length : 0};
  }
  // Returns the next `length` bytes where they lie; null after a failure.
  const u8* readBytes(u32 length) { return take(length); }
  // Returns a copy of them that the caller owns.
  std::unique_ptr<u8[]> copyBytes(u32 length);

  // Throw KTOutOfMemory if the buffer can't grow; the length of a text may have been written then. The source
  // must not lie in the buffer itself.
  void writeU8(u8 value) { writeNumber(value); }
  void writeU16(u16 value) { writeNumber(value); }
  void writeU32(u32 value) { writeNumber(value); }
  void writeInt64(i64 value) { writeNumber(static_cast<u64>(value)); }
  void writeDouble(double value) { writeNumber(std::bit_cast<u64>(value)); }
  // Cuts a short text at 65,535 bytes, the most that its length field can hold.
  void writeString(std::string_view text, TextKind kind);
  void writeBytes(const void* data, u32 length);

  // Returns what was written so far; valid until the writer writes more or ends.
  const u8* bytes() const { return buffer_; }
  i32 length() const { return position_; }

  // The one place for every short read and bad length.
  void fail();
  // Makes all later reads fail, without throwing. What a writer wrote stays.
  void giveUp() {
    failed_ = true;
    if (!writing_) position_ = limit_;
  }
  // Takes back what was written since `position`.
  void rewind(i32 position) { position_ = position; }

  class Pen;

 protected:
  ~KTParser() = default;

 private:
  template <class Number>
  static Number swapped(Number value) {
    if constexpr (std::endian::native == std::endian::big || sizeof(Number) == 1) return value;
    if constexpr (sizeof(Number) == 2) return __builtin_bswap16(value);
    if constexpr (sizeof(Number) == 4) return __builtin_bswap32(value);
    if constexpr (sizeof(Number) == 8) return __builtin_bswap64(value);
  }

  const u8* take(u32 count) {
    if (count > remaining()) return refuseRead();
    const u8* const bytes = buffer_ + position_;
    position_ += static_cast<i32>(count);
    return bytes;
  }
  const u8* refuseRead();

  template <class Number>
  Number readNumber() {
    const u8* const bytes = take(sizeof(Number));
    if (!bytes) return 0;
    Number value;
    std::memcpy(&value, bytes, sizeof value);
    return swapped(value);
  }

  // Put a number or a text at `bytes`. Return the place behind it.
  template <class Number>
  static u8* put(u8* bytes, Number value) {
    const Number wire = swapped(value);
    std::memcpy(bytes, &wire, sizeof wire);
    return bytes + sizeof wire;
  }
  // Up to 32 bytes, as nearly all names and texts have, go as two pieces that may overlap: a call of memcpy
  // takes longer than that.
  static u8* putText(u8* bytes, std::string_view text) {
    const std::size_t size = text.size();
    if (size > 32) {
      std::memcpy(bytes, text.data(), size);
    } else if (size >= 16) {
      putEnds<16>(bytes, text);
    } else if (size >= 8) {
      putEnds<8>(bytes, text);
    } else if (size >= 4) {
      putEnds<4>(bytes, text);
    } else {
      for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<u8>(text[i]);
    }
    return bytes + size;
  }
  template <std::size_t kPiece>
  static void putEnds(u8* bytes, std::string_view text) {
    std::memcpy(bytes, text.data(), kPiece);
    std::memcpy(bytes + text.size() - kPiece, text.data() + text.size() - kPiece, kPiece);
  }

  // Returns the next `count` bytes, all to be filled; null on a reader.
  u8* room(u32 count) {
    if (!writing_) return refuseWrite();
    if (count > static_cast<u32>(limit_ - position_)) grow(count);
    u8* const bytes = owned_.get() + position_;
    position_ += static_cast<i32>(count);
    return bytes;
  }
  void grow(u32 count);
  void reallocate(u64 capacity);
  u8* refuseWrite();

  template <class Number>
  void writeNumber(Number value) {
    if (u8* const bytes = room(sizeof value)) put(bytes, value);
  }

  bool failed_ = false;
  const bool writing_;
  bool throwOnError_ = false;
  std::unique_ptr<u8[]> owned_;  // A writer's buffer.
  u64 ownedSize_ = 0;            // At least `limit_`.
  const u8* buffer_ = nullptr;
  i32 position_ = 0;
  i32 limit_ = 0;
  i32 encoding_ = 0;
};

// Writes many small pieces in a row with the cursor at hand, where each of KTParser's own operations would
// load and store it. While a pen is set, only the pen may use the parser, which must be a writer.
class KTParser::Pen {
 public:
  explicit Pen(KTParser& parser) : parser_(parser) { set(); }
  ~Pen() { lift(); }
  Pen(const Pen&) = delete;
  Pen& operator=(const Pen&) = delete;

  // Makes room for what is put next, `count` bytes in all. May throw KTOutOfMemory.
  void need(u32 count) {
    if (count <= static_cast<u64>(end_ - at_)) [[likely]]
      return;
    lift();
    parser_.grow(count);
    set();
  }
  template <class Number>
  void put(Number value) {
    at_ = KTParser::put(at_, value);
  }
  // Puts a text of at most kMaxShortText bytes behind its length.
  void putShortText(std::string_view text) {
    put(static_cast<u16>(text.size()));
    at_ = putText(at_, text);
  }

  // Gives the parser its cursor back.
  void lift() {
    if (at_) parser_.position_ = static_cast<i32>(at_ - parser_.owned_.get());
    at_ = end_ = nullptr;
  }
  void set() {
    at_ = parser_.owned_.get() + parser_.position_;
    end_ = parser_.owned_.get() + parser_.limit_;
  }

 private:
  KTParser& parser_;
  u8* at_ = nullptr;
  u8* end_ = nullptr;
};
