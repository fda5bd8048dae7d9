// printf over text of 16-bit code units.
//
// Flags `-+ #0`, width and precision (also `*`), and the conversions d i u o x X, e E f F g G a A, p, c C,
// s S and %. Numbers go through the C library. `%s` and `%c` take wide text, `%S` and `%C` narrow text;
// a prefix h makes either narrow, l or w makes either wide. Narrow text is read as UTF-8, and a byte that
// starts no valid sequence stands for itself. A null text prints as "(null)". Width and precision of a text
// count units, but the precision of a narrow text counts bytes, and no byte behind it is read.
//
// Integers take hh, h, none or l or I32 (32 bits), and ll, j, z, t, I or I64 (64 bits); floating point takes
// none or l (double) and L (long double). `long` is 32 bits wide in a format.

#pragma once

#include <cstdarg>
#include <cstddef>

#include "platform/Types.h"

namespace orv::platform {

// Prints what fits into `out` with a terminating NUL, or nothing if `size` is 0. Returns the length of the
// whole text without the NUL; -1 for an unknown or cut conversion and for a width or precision above 65,536,
// behind which no argument is read, since their types are unknown.
i64 formatWide(char16_t* out, std::size_t size, const char16_t* format, std::va_list arguments);

}  // namespace orv::platform
