// One owner of a descriptor of the system, and the loops that read and write all bytes.

#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <utility>

#include "platform/Types.h"

namespace orv::host {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { close(); }

  // Opens a file; the descriptor isn't inherited, and a named pipe isn't waited for. Empty on failure, with
  // the reason in errno. A descriptor never takes the number of a standard stream, not even a closed one's.
  static Descriptor open(const std::string& name, int flags, mode_t mode = 0);
  // Another descriptor of the open file `fd`.
  static Descriptor duplicate(int fd);

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }  // -1 if empty.
  int release() { return std::exchange(fd_, -1); }
  // Returns false, with the reason in errno, where the system reports a late error.
  bool close();

  std::optional<struct stat> status() const;
  // Locks the file for this descriptor until it is closed. Returns false if another one holds the lock; true
  // as well where the file system has no locks.
  bool lock() const;

 private:
  int fd_ = -1;
};

struct Transfer {
  std::size_t bytes;  // Moved before the end of the file, or before the failure.
  int error;          // As in errno; 0: none.
};

// Repeat the system's call until all is moved, the file ends or a call fails.
Transfer readAt(int fd, i64 position, void* data, std::size_t size);
Transfer writeAt(int fd, i64 position, const void* data, std::size_t size);
Transfer writeNext(int fd, const void* data, std::size_t size);  // At the descriptor's own place.

}  // namespace orv::host
