#include "modules/streams/flv/FrameTypes.h"

#include <bit>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace orv::flv {
namespace {

constexpr i64 kAtOnce = 16;
constexpr i64 kFieldSize = 4;  // From a size field's top byte to the type byte behind the field.

bool canShuffleBytes() {
#if defined(__x86_64__)
  static const bool can = __builtin_cpu_supports("ssse3");
  return can;
#else
  return false;
#endif
}

#if defined(__x86_64__)
__m128i load(const u8* bytes) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}
#endif

}  // namespace

void FrameTypes::add(u8 type) {
  set_.set(type);
  std::array<u8, 16>& half = type < 0x80 ? lowHalf_ : highHalf_;
  half[type & 0x0F] |= static_cast<u8>(1 << (type >> 4 & 7));
}

i64 FrameTypes::highest(const u8* bytes, i64 high, i64 low) const {
  return canShuffleBytes() ? highestOfSixteen(bytes, high, low) : highestPlain(bytes, high, low);
}

i64 FrameTypes::highestPlain(const u8* bytes, i64 high, i64 low) const {
  while (high >= low && !(set_.test(bytes[high]) && bytes[high - kFieldSize] <= 1)) --high;
  return high;
}

#if defined(__x86_64__)
// A shuffle looks up sixteen nibbles in a table of sixteen bytes, and gives 0 where the top bit is set: so
// each of the two tables answers for its half of the bytes.
__attribute__((target("ssse3"))) i64 FrameTypes::highestOfSixteen(const u8* bytes, i64 high, i64 low) const {
  const __m128i lowHalf = load(lowHalf_.data()), highHalf = load(highHalf_.data());
  const __m128i bitOf = _mm_setr_epi8(1, 2, 4, 8, 16, 32, 64, -128, 1, 2, 4, 8, 16, 32, 64, -128);
  const __m128i nibble = _mm_set1_epi8(0x0F), topAndNibble = _mm_set1_epi8(static_cast<char>(0x8F));
  const __m128i top = _mm_set1_epi8(static_cast<char>(0x80)), one = _mm_set1_epi8(1);
  for (; high - low + 1 >= kAtOnce; high -= kAtOnce) {
    const u8* const first = bytes + high - (kAtOnce - 1);
    const __m128i type = load(first), fieldTop = load(first - kFieldSize);
    const __m128i row =
        _mm_or_si128(_mm_shuffle_epi8(lowHalf, _mm_and_si128(type, topAndNibble)),
                     _mm_shuffle_epi8(highHalf, _mm_and_si128(_mm_xor_si128(type, top), topAndNibble)));
    const __m128i bit = _mm_shuffle_epi8(bitOf, _mm_and_si128(_mm_srli_epi16(type, 4), nibble));
    const __m128i isType = _mm_cmpeq_epi8(_mm_and_si128(row, bit), bit);
    const __m128i isField = _mm_cmpeq_epi8(_mm_min_epu8(fieldTop, one), fieldTop);
    const auto hits = static_cast<u32>(_mm_movemask_epi8(_mm_and_si128(isType, isField)));
    if (hits != 0) return high - (kAtOnce - 1) + (std::bit_width(hits) - 1);
  }
  return highestPlain(bytes, high, low);
}
#else
i64 FrameTypes::highestOfSixteen(const u8* bytes, i64 high, i64 low) const {
  return highestPlain(bytes, high, low);
}
#endif

}  // namespace orv::flv
