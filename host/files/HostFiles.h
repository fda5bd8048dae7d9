// The one file service that the module gets: local files and objects on web servers, by their names.

#pragma once

#include <atomic>

#include "host/files/PosixFileService.h"
#include "host/files/RemoteFileService.h"

namespace orv::host {

// How often each operation was called, and the bytes that went through.
struct FileCalls {
  u64 open, close, read, write, fstat, stat, unlink, mkdir;
  u64 bytesRead, bytesWritten;
  u64 total() const { return open + close + read + write + fstat + stat + unlink + mkdir; }
};

// Hands each call to the service that the path or the descriptor belongs to, and counts it. Safe from any
// thread.
class HostFiles final : public IFileService {
 public:
  explicit HostFiles(PosixFileService::FaultHook onWriteFault)
      : local_(std::move(onWriteFault)), remote_(RemoteFiles::shared()) {}

  int open(const char* path, int flags, int mode, int reserved) override;
  int close(int fd, int reserved) override;
  int read(int fd, i64 position, void* data, u32 size) override;
  int write(int fd, i64 position, const void* data, u32 size) override;
  int fstat(int fd, FileStat* record, int reserved) override;
  int stat(const char* path, FileStat* record, int reserved) override;
  int unlink(const char* path, int reserved) override;
  void mkdir(const char* path) override;

  FileCalls calls() const;

 private:
  using Counter = std::atomic<u64>;
  struct Counters {
    Counter open{0}, close{0}, read{0}, write{0}, fstat{0}, stat{0}, unlink{0}, mkdir{0};
    Counter bytesRead{0}, bytesWritten{0};
  };

  IFileService& at(const char* path);
  IFileService& at(int fd);

  Counters counters_;
  PosixFileService local_;
  RemoteFileService remote_;
};

}  // namespace orv::host
