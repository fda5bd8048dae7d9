#include "host/files/Descriptor.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Descriptor.h"

namespace orv::host {

namespace {

// Moves `size` bytes by repeated calls of `step`(offset, bytes left).
template <class Step>
Transfer moveBytes(std::size_t size, Step step) {
  const platform::Transfer moved = platform::moveAll(static_cast<i64>(size), [&](i64 done, i64 left) -> i64 {
    return step(static_cast<std::size_t>(done), static_cast<std::size_t>(left));
  });
  return {static_cast<std::size_t>(moved.bytes), moved.error};
}

}  // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = other.release();
  }
  return *this;
}

Descriptor Descriptor::open(const std::string& name, int flags, mode_t mode) {
  Descriptor opened(::open(name.c_str(), flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode));
  return opened.get() > STDERR_FILENO || !opened ? std::move(opened) : duplicate(opened.get());
}

Descriptor Descriptor::duplicate(int fd) {
  return Descriptor(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

bool Descriptor::close() {
  return fd_ < 0 || ::close(release()) == 0;
}

std::optional<struct stat> Descriptor::status() const {
  struct stat status {};
  if (::fstat(fd_, &status) != 0) return std::nullopt;
  return status;
}

bool Descriptor::lock() const {
  return ::flock(fd_, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

Transfer readAt(int fd, i64 position, void* data, std::size_t size) {
  return moveBytes(size, [&](std::size_t offset, std::size_t left) {
    return ::pread(fd, static_cast<u8*>(data) + offset, left, position + static_cast<i64>(offset));
  });
}

Transfer writeAt(int fd, i64 position, const void* data, std::size_t size) {
  return moveBytes(size, [&](std::size_t offset, std::size_t left) {
    return ::pwrite(fd, static_cast<const u8*>(data) + offset, left, position + static_cast<i64>(offset));
  });
}

Transfer writeNext(int fd, const void* data, std::size_t size) {
  return moveBytes(size, [&](std::size_t offset, std::size_t left) {
    return ::write(fd, static_cast<const u8*>(data) + offset, left);
  });
}

}  // namespace orv::host
