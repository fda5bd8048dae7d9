// The host's own plain look into a file, beside the module's.

#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "platform/Types.h"

namespace orv::host {

class ReadOnlyFile {
 public:
  // O_NONBLOCK: opening a named pipe must not wait for its writer.
  explicit ReadOnlyFile(const std::string& name)
      : fd_(::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
  ReadOnlyFile(const ReadOnlyFile&) = delete;
  ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;
  ~ReadOnlyFile() {
    if (fd_ >= 0) ::close(fd_);
  }

  int fd() const { return fd_; }  // -1 if it couldn't be opened; errno then tells why.

  // The bytes read: fewer than `size` at the end of the file or where it can't be read.
  std::size_t read(i64 position, u8* out, std::size_t size) const {
    std::size_t filled = 0;
    while (filled < size) {
      const ssize_t done = ::pread(fd_, out + filled, size - filled, position + static_cast<i64>(filled));
      if (done <= 0) break;
      filled += static_cast<std::size_t>(done);
    }
    return filled;
  }

 private:
  const int fd_;
};

}  // namespace orv::host
