// UTF-8 for 16-bit code units, one unit to one sequence: surrogates are not paired, each travels as three
// bytes of its own, and a lead byte of 0xF0 or above is never valid.

#pragma once

#include <cstddef>

#include "platform/Types.h"

namespace orv::platform {

constexpr std::size_t kMaxUtf8Bytes = 3;

// Returns the length of a sequence with this lead byte; 0 if no sequence has it.
std::size_t utf8Length(u8 lead);

// Encodes any unit into `out`, which has room for kMaxUtf8Bytes. Returns the number of bytes written.
std::size_t encodeUtf8(char16_t unit, char* out);

// Decodes the sequence that starts at `text` and reads no byte at or behind `text + size`. Gives its bytes
// and sets `*unit`, or gives 0 and leaves `*unit` when no valid sequence starts there.
std::size_t decodeUtf8(const char* text, std::size_t size, char16_t* unit);

}  // namespace orv::platform
