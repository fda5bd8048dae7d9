// Classes and case of 16-bit code units, as the C library's current locale tells. A surrogate has neither.

#pragma once

namespace orv::platform {

bool isWideSpace(char16_t unit);
char16_t toWideLower(char16_t unit);

}  // namespace orv::platform
