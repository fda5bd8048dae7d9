#include "platform/Descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace orv::platform {

int lastErrorCode() {
  return errno;
}

Transfer readDescriptor(int fd, void* data, i64 size) {
  return moveAll(size, [&](i64 done, i64 left) {
    return ::read(fd, static_cast<u8*>(data) + done, static_cast<size_t>(left));
  });
}

Transfer writeDescriptor(int fd, const void* data, i64 size) {
  return moveAll(size, [&](i64 done, i64 left) {
    return ::write(fd, static_cast<const u8*>(data) + done, static_cast<size_t>(left));
  });
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
