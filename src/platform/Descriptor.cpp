#include "platform/Descriptor.h"

#include <unistd.h>

#include <cerrno>

namespace orv::platform {

int lastErrorCode() {
  return errno;
}

i64 readDescriptor(int fd, void* data, i64 size) {
  i64 done = 0;
  while (done < size) {
    const ssize_t got = ::read(fd, static_cast<u8*>(data) + done, static_cast<size_t>(size - done));
    if (got > 0) {
      done += got;
    } else if (got == 0 || errno != EINTR) {
      break;
    }
  }
  return done;
}

}  // namespace orv::platform
