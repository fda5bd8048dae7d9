// A thin host over a real directory, which keeps the host in memory honest and serves the benchmarks.

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "support/TestContext.h"

namespace orv::test {

// Backslashes in paths stand for slashes. Counts what the module does.
class DiskHost final : public TestContext, public IFileService {
 public:
  std::atomic<i64> callCount{0};
  std::atomic<i64> bytesRead{0};
  std::atomic<i64> writeCount{0};
  std::atomic<i64> openDescriptors{0};
  std::atomic<bool> refuseOpens{false};

  IFileService* getFileService() override { return this; }
  int open(const char* path, int flags, int mode, int) override {
    ++callCount;
    const int fd = refuseOpens ? -1 : ::open(native(path).c_str(), nativeFlags(flags), mode);
    if (fd >= 0) ++openDescriptors;
    return fd;
  }
  int close(int fd, int) override {
    ++callCount;
    --openDescriptors;
    return ::close(fd);
  }
  int read(int fd, i64 position, void* data, u32 size) override {
    ++callCount;
    const auto got = static_cast<int>(::pread(fd, data, size, position));
    bytesRead += std::max(got, 0);
    return got;
  }
  int write(int fd, i64 position, const void* data, u32 size) override {
    ++callCount;
    ++writeCount;
    return static_cast<int>(::pwrite(fd, data, size, position));
  }
  int fstat(int fd, FileStat* record, int) override {
    struct stat found {};
    return describe(::fstat(fd, &found), found, record);
  }
  int stat(const char* path, FileStat* record, int) override {
    struct stat found {};
    return describe(::stat(native(path).c_str(), &found), found, record);
  }
  int unlink(const char* path, int) override {
    ++callCount;
    return ::unlink(native(path).c_str());
  }
  void mkdir(const char* path) override {
    ++callCount;
    ::mkdir(native(path).c_str(), 0777);
  }

 private:
  static std::string native(const char* path) {
    std::string out = path;
    std::replace(out.begin(), out.end(), '\\', '/');
    return out;
  }
  static int nativeFlags(int flags) {
    if (flags == openflags::readOnly) return O_RDONLY | O_CLOEXEC;
    if (flags == openflags::readWrite) return O_RDWR | O_CLOEXEC;
    if (flags == openflags::createTruncate) return O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC;
    return -1;  // The kernel refuses it.
  }
  // Two changes within one tick of the kernel's clock still give two times: by the size or by our own count.
  int describe(int result, const struct stat& found, FileStat* record) {
    ++callCount;
    *record = {};
    record->size = found.st_size;
    record->modificationTime =
        found.st_mtim.tv_sec * 1'000'000 + found.st_mtim.tv_nsec / 1000 + found.st_size + writeCount;
    return result;
  }
};

}  // namespace orv::test
