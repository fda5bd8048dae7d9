// The console code page for plain 8-bit text.
//
// It is fixed at code page 437, the one of an unconfigured machine, so that a text means the same on every
// host and in every locale. Bytes below 128 are ASCII, control characters included; every byte has a meaning,
// so no text fails to convert.

#pragma once

#include "platform/Types.h"

namespace orv::platform {

char16_t fromCodePage(u8 byte);

}  // namespace orv::platform
