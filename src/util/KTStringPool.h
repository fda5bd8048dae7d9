// String blocks, and the process-wide pool that may share them.
//
// A text is held by a pointer straight at its first character. The four bytes in front of it are the header:
// the length in three bytes, big-endian, and the kind. The empty text is one constant with a header of its
// own kind, so that every library of a process reads it alike; releasing it does nothing.
//
// A private block belongs to its one holder and has room for a multiple of 32 characters, which follows from
// its length. A pooled block has exactly the room for its text, is shared by all who hold that text, and is
// never written to. Texts are pooled up to the length that the environment variable "ORV_STRING_POOL" gives;
// without it none is, and the pool costs nothing.

#pragma once

#include <string_view>

#include "platform/Types.h"
#include "util/KTObject.h"

template <class Char>
class KTStringShelf;

struct KTStringPoolCounts {
  orv::u64 pooledCharacters = 0;
  orv::u64 hits = 0;
  orv::u64 misses = 0;
};

// Any thread may call any operation; a block is written to by one holder at a time. `Char` is char or
// char16_t. A length of -1 reaches up to the NUL; a null text is empty. A text of more than kMaxLength
// characters throws KTOutOfMemory, a failed allocation std::bad_alloc; either leaves every block as it was.
class KTStringPool {
 public:
  static constexpr orv::i32 kMaxLength = 0xFFFFFF;
  enum Kind : orv::u8 { kPooled = 0, kPrivate = 1, kEmpty = 3 };

  // Returns the pool, made at the first call, which reads the environment; it lives as long as the process.
  static KTStringPool& instance();

  // Returns the length of the longest text that is pooled; 0 if the pool is off.
  orv::i32 limit() const { return poolLimit_; }

  template <class Char>
  static Char* create(const Char* text, orv::i64 length = -1);

  template <class Char>
  static void release(Char* block);

  // Take over `block` and return the block that replaces it. `text` may lie inside `block`.
  template <class Char>
  static Char* assign(Char* block, const Char* text, orv::i64 length);
  template <class Char>
  static Char* append(Char* block, const Char* text, orv::i64 length);
  template <class Char>
  static Char* makePrivate(Char* block);

  // Shortens a private block, which stays where it is unless nothing is left.
  template <class Char>
  static Char* truncate(Char* block, orv::i32 length);

  // Returns a private block with the two texts one behind the other; the empty text if both are empty.
  template <class Char>
  static Char* join(std::basic_string_view<Char> first, std::basic_string_view<Char> second);

  template <class Char>
  static orv::i32 length(const Char* block);
  template <class Char>
  static Kind kind(const Char* block);
  template <class Char>
  static Char* empty();

  // Frees the pooled blocks that nobody holds and gives their characters. One caller at a time sweeps; a
  // second one gets 0 at once.
  orv::i64 sweep();

  // Returns what the pool did with texts of this length; all 0 above the limit.
  template <class Char>
  KTStringPoolCounts counts(orv::i32 length);

 private:
  KTStringPool();
  ~KTStringPool() = delete;

  // Returns null if texts of this length are not pooled.
  template <class Char>
  KTStringShelf<Char>* shelfFor(orv::i32 length);

  orv::i32 poolLimit_ = 0;
  KTStringShelf<char>* narrow_ = nullptr;  // Both set once, when the limit is above 0.
  KTStringShelf<char16_t>* wide_ = nullptr;
  KTAtomicCounter sweeping_;
};

namespace orv::util::hidden {

// Header and terminator of the two empty texts, as one array each.
template <class Char>
struct EmptyText;
template <>
struct EmptyText<char> {
  alignas(4) static constexpr char block[] = {0, 0, 0, KTStringPool::kEmpty, 0};
};
template <>
struct EmptyText<char16_t> {
  alignas(4) static constexpr char16_t block[] = {0, KTStringPool::kEmpty << 8, 0};
};

constexpr u32 kTextHeaderSize = 4;

inline u32 textHeader(const void* block) {
  u32 header;
  __builtin_memcpy(&header, static_cast<const u8*>(block) - kTextHeaderSize, kTextHeaderSize);
  return __builtin_bswap32(header);
}

}  // namespace orv::util::hidden

template <class Char>
orv::i32 KTStringPool::length(const Char* block) {
  return static_cast<orv::i32>(orv::util::hidden::textHeader(block) >> 8);
}

template <class Char>
KTStringPool::Kind KTStringPool::kind(const Char* block) {
  return static_cast<Kind>(orv::util::hidden::textHeader(block) & 0xFF);
}

// Never written to: the kind sets it apart from a private block.
template <class Char>
Char* KTStringPool::empty() {
  return const_cast<Char*>(orv::util::hidden::EmptyText<Char>::block +
                           orv::util::hidden::kTextHeaderSize / sizeof(Char));
}
