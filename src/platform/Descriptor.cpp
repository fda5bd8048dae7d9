#include "platform/Descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace orv::platform {

namespace {

template <class Call>
i64 uninterrupted(Call call) {
  i64 moved = 0;
  do {
    moved = call();
  } while (moved < 0 && errno == EINTR);
  return moved;
}

}  // namespace

int lastErrorCode() {
  return errno;
}

i64 readSome(int fd, void* data, i64 size) {
  return uninterrupted([&] { return ::read(fd, data, static_cast<size_t>(size)); });
}

i64 writeSome(int fd, const void* data, i64 size) {
  return uninterrupted([&] { return ::write(fd, data, static_cast<size_t>(size)); });
}

i64 readDescriptor(int fd, void* data, i64 size) {
  i64 done = 0;
  while (done < size) {
    const i64 got = readSome(fd, static_cast<u8*>(data) + done, size - done);
    if (got <= 0) break;
    done += got;
  }
  return done;
}

i64 seekDescriptor(int fd, i64 offset, int whence) {
  return ::lseek(fd, offset, whence);
}

bool isRegularFile(int fd) {
  struct stat state {};
  return ::fstat(fd, &state) == 0 && S_ISREG(state.st_mode);
}

int openTemporaryFile(const char* prefix) {
  std::error_code error;
  const std::filesystem::path directory = std::filesystem::temp_directory_path(error);
  if (error) return -1;
  std::string name = (directory / prefix).string() + "XXXXXX";
  const int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd >= 0) ::unlink(name.c_str());
  return fd;
}

}  // namespace orv::platform
