// The integer types of the contract and of the file format.
//
// They live in namespace orv. The global names are aliases: a host that has names like these of its own
// defines ORV_NO_GLOBAL_INTEGERS before it includes any header of ours.

#pragma once

#include <cstdint>

namespace orv {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i8 = std::int8_t;
using i16 = std::int16_t;
using i32 = std::int32_t;
using i64 = std::int64_t;

}  // namespace orv

#ifndef ORV_NO_GLOBAL_INTEGERS
using u8 = orv::u8;
using u16 = orv::u16;
using u32 = orv::u32;
using u64 = orv::u64;
using i8 = orv::i8;
using i16 = orv::i16;
using i32 = orv::i32;
using i64 = orv::i64;
#endif

// Marks what the shared module shows to its host; everything else stays hidden.
#define ORV_EXPORT __attribute__((visibility("default")))
