// What the AMF reader grants to untrusted bytes. Going past a limit is a soft failure, as if
// the bytes had ended there.

#pragma once

#include <algorithm>

#include "platform/Types.h"

namespace orv::amf {

// Containers inside one another. Real metadata nests 3 or 4 deep; what is read, written or taken down calls
// itself once or twice a level, and 64 levels stay within 32 KiB of any fiber's stack.
inline constexpr u32 kMaxNesting = 64;

// Heap bytes that the values of one reader may take in all. Metadata of any shape is granted in full up to
// 100 KB: the dearest form, an empty AMF3 object of a known class, takes 220 for a byte of payload. Longer
// payloads get less a byte, which serves 1 MiB of plain arrays (numbers, booleans, dates, texts of a letter)
// and bounds what a hostile one can take. Everything is counted when it is asked for and never given back,
// so that the limit also bounds the work of copying texts that are referred to over and over.
inline constexpr u64 kAnyShapeLength = 100'000;
inline constexpr u64 kAnyShapePerByte = 220;
inline constexpr u64 kFreeMemory = u64{4} << 20;
inline constexpr u64 kMemoryPerByte = 16;

constexpr u64 grantFor(u64 length) {
  return std::max(kFreeMemory + length * kMemoryPerByte,
                  std::min(length, kAnyShapeLength) * kAnyShapePerByte);
}

// What the heap keeps beside each block that it hands out.
inline constexpr u32 kBlockOverhead = 16;

}  // namespace orv::amf
