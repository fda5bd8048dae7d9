// Plain file descriptors of the operating system.

#pragma once

#include "platform/Types.h"

namespace orv::platform {

// The code of the calling thread's last failed system call.
int lastErrorCode();

// Reads `size` bytes from the descriptor's own position on, through interruptions and short reads. The bytes
// that came: fewer at the end of the file or on a failure.
i64 readDescriptor(int fd, void* data, i64 size);

}  // namespace orv::platform
