// The type bytes of frames, and the search for them.

#pragma once

#include <array>
#include <bitset>

#include "platform/Types.h"

namespace orv::flv {

// A set of bytes that also finds, sixteen positions at a time where the processor can, the few positions of a
// file that may hold a tag at all.
class FrameTypes {
 public:
  template <class Bytes>
  explicit FrameTypes(const Bytes& types) {
    for (const u8 type : types) add(type);
  }

  bool test(u8 type) const { return set_.test(type); }

  // The highest index from `high` down to `low` at which a type byte stands, four bytes behind one of 0 or 1:
  // the top byte of a size field holds nothing else. `low` - 1 if there is none. Reads from `bytes` + `low` -
  // 4 to `bytes` + `high`.
  i64 highest(const u8* bytes, i64 high, i64 low) const;
  // The same without the processor's help.
  i64 highestPlain(const u8* bytes, i64 high, i64 low) const;

 private:
  void add(u8 type);
  i64 highestOfSixteen(const u8* bytes, i64 high, i64 low) const;

  std::bitset<256> set_;
  // By low nibble: the high nibbles from 0 to 7, and from 8 to 15, with which it makes a type, one bit each.
  alignas(16) std::array<u8, 16> lowHalf_{};
  alignas(16) std::array<u8, 16> highHalf_{};
};

}  // namespace orv::flv
