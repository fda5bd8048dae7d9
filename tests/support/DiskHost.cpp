#include "support/DiskHost.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orv::test {
namespace {

std::string native(const char* path) {
  std::string out = path;
  std::replace(out.begin(), out.end(), '\\', '/');
  return out;
}

int nativeFlags(int flags) {
  switch (flags) {
    case openflags::readOnly:
      return O_RDONLY;
    case openflags::readWrite:
      return O_RDWR;
    case openflags::createTruncate:
      return O_RDWR | O_CREAT | O_TRUNC;
    default:
      return -1;
  }
}

// Two changes within one tick of the kernel's clock still give two times: by the size or by our own count.
void describe(const struct stat& from, i64 writes, FileStat* record) {
  *record = {};
  record->size = from.st_size;
  record->modificationTime =
      from.st_mtim.tv_sec * 1'000'000 + from.st_mtim.tv_nsec / 1000 + from.st_size + writes;
}

}  // namespace

int DiskHost::open(const char* path, int flags, int mode, int) {
  ++callCount;
  if (refuseOpens || nativeFlags(flags) < 0) return -1;
  const int fd = ::open(native(path).c_str(), nativeFlags(flags) | O_CLOEXEC, mode);
  if (fd >= 0) ++openDescriptors;
  return fd;
}

int DiskHost::close(int fd, int) {
  ++callCount;
  --openDescriptors;
  return ::close(fd);
}

int DiskHost::read(int fd, i64 position, void* data, u32 size) {
  ++callCount;
  const auto got = static_cast<int>(::pread(fd, data, size, position));
  bytesRead += std::max(got, 0);
  return got;
}

int DiskHost::write(int fd, i64 position, const void* data, u32 size) {
  ++callCount;
  ++writes_;
  return static_cast<int>(::pwrite(fd, data, size, position));
}

int DiskHost::fstat(int fd, FileStat* record, int) {
  ++callCount;
  struct stat found {};
  if (::fstat(fd, &found) != 0) return -1;
  describe(found, writes_, record);
  return 0;
}

int DiskHost::stat(const char* path, FileStat* record, int) {
  ++callCount;
  struct stat found {};
  if (::stat(native(path).c_str(), &found) != 0) return -1;
  describe(found, writes_, record);
  return 0;
}

int DiskHost::unlink(const char* path, int) {
  ++callCount;
  return ::unlink(native(path).c_str());
}

void DiskHost::mkdir(const char* path) {
  ++callCount;
  ::mkdir(native(path).c_str(), 0777);
}

}  // namespace orv::test
