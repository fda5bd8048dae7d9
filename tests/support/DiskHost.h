// A thin host over a real directory, for suites that run on both hosts and for benchmarks.

#pragma once

#include <atomic>

#include "support/TestContext.h"

namespace orv::test {

// Backslashes in paths stand for slashes. Counts what the module does.
class DiskHost final : public TestContext, public IFileService {
 public:
  std::atomic<i64> callCount{0};
  std::atomic<i64> bytesRead{0};
  std::atomic<i64> openDescriptors{0};
  std::atomic<bool> refuseOpens{false};

  IFileService* getFileService() override { return this; }
  int open(const char* path, int flags, int mode, int reserved) override;
  int close(int fd, int reserved) override;
  int read(int fd, i64 position, void* data, u32 size) override;
  int write(int fd, i64 position, const void* data, u32 size) override;
  int fstat(int fd, FileStat* record, int reserved) override;
  int stat(const char* path, FileStat* record, int reserved) override;
  int unlink(const char* path, int reserved) override;
  void mkdir(const char* path) override;

 private:
  // Told apart from the kernel's time, whose ticks are coarser than two writes.
  std::atomic<i64> writes_{0};
};

}  // namespace orv::test
