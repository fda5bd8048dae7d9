// What the C library's current locale knows of 16-bit code units, and its wide reading of streams.

#pragma once

#include <cstdio>

#include "platform/Types.h"

namespace orv::platform {

// A surrogate is no space and has no case.
bool isWideSpace(char16_t unit);
char16_t toWideLower(char16_t unit);

// fgetwc: the next character, -1 at the end and for bytes that are none.
i32 readWideFrom(std::FILE* stream);

}  // namespace orv::platform
