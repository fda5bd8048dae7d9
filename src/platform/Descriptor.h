// Plain file descriptors of the operating system.

#pragma once

#include "platform/Types.h"

namespace orv::platform {

// The code of the calling thread's last failed system call.
int lastErrorCode();

// One read or write, begun again when a signal interrupts it. The bytes that moved, which may be fewer than
// asked for; 0 at the end of the file; -1 on a failure.
i64 readSome(int fd, void* data, i64 size);
i64 writeSome(int fd, const void* data, i64 size);

// Reads `size` bytes from the descriptor's own position on, through interruptions and short reads. The bytes
// that came: fewer at the end of the file or on a failure.
i64 readDescriptor(int fd, void* data, i64 size);

// `whence` is 0 from the start, 1 from the position, 2 from the end. The new position, or -1.
i64 seekDescriptor(int fd, i64 offset, int whence);

bool isRegularFile(int fd);

// A new file for reading and writing in the directory for temporary files, with a name that starts with
// `prefix`. It has no name any more when this returns, so it goes when it is closed, however the process
// ends. -1 on a failure.
int openTemporaryFile(const char* prefix);

}  // namespace orv::platform
