// Plain file descriptors of the operating system.

#pragma once

#include <cerrno>

#include "platform/Types.h"

namespace orv::platform {

// Returns the code of the calling thread's last failed system call.
int lastErrorCode();

// How many bytes moved and, where a call failed, why no more did; 0 at the end of the file.
struct Transfer {
  i64 bytes = 0;
  int error = 0;
};

// Moves `size` bytes by calls of `step`(bytes moved so far, bytes left), which returns as ::read does:
// through interruptions and short results, up to the end of the file or a failure.
template <class Step>
Transfer moveAll(i64 size, Step step) {
  i64 done = 0;
  while (done < size) {
    const i64 moved = step(done, size - done);
    if (moved == 0) break;
    if (moved > 0) {
      done += moved;
    } else if (errno != EINTR) {
      return {done, errno};
    }
  }
  return {done, 0};
}

// Read or write `size` bytes from the descriptor's own position on.
Transfer readDescriptor(int fd, void* data, i64 size);
Transfer writeDescriptor(int fd, const void* data, i64 size);

// `whence` is 0 from the start, 1 from the position, 2 from the end. Returns the new position; -1 on failure.
i64 seekDescriptor(int fd, i64 offset, int whence);

bool isRegularFile(int fd);

// Opens a new file in the directory for temporary files, for reading and writing, under a name that starts
// with `prefix`. The name is gone when this returns, so the file goes when it is closed, however the process
// ends. Returns -1 on failure.
int openTemporaryFile(const char* prefix);

}  // namespace orv::platform
