// The integer types of the contract and of the file format.

#pragma once

#include <cstdint>

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i8 = std::int8_t;
using i16 = std::int16_t;
using i32 = std::int32_t;
using i64 = std::int64_t;

// Marks what the shared module shows to its host; everything else stays hidden.
#define ORV_EXPORT __attribute__((visibility("default")))
