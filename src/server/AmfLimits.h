// What the AMF reader grants to bytes that nobody vouches for. Going past a limit is a soft failure, as if
// the bytes had ended there.

#pragma once

#include "platform/Types.h"

namespace orv::amf {

// Containers inside one another. Real metadata nests 3 or 4 deep; what is read, written or taken down calls
// itself once or twice a level, and 64 levels stay within 32 KiB of any fiber's stack.
inline constexpr u32 kMaxNesting = 64;

// Heap bytes that the values of one reader may take in all: a grant that serves metadata of any shape up to
// about 100 KB, and so much a byte of payload on top. Objects of two numbers, the densest that tools write by
// the thousand, take 11 a byte; AMF3 objects whose names are references take up to 40 and empty values up to
// 100, which is what the limit is there for. Everything that is made
// is counted when it is asked for and never given back, so that the limit also bounds the work of copying
// texts that are referred to over and over.
inline constexpr u64 kFreeMemory = u64{4} << 20;
inline constexpr u64 kMemoryPerByte = 16;

// What the heap keeps beside each block that it hands out.
inline constexpr u32 kBlockOverhead = 16;

}  // namespace orv::amf
