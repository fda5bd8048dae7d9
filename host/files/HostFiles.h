// The one file service that the module gets: local files and objects on web servers, by their names.

#pragma once

#include "host/files/PosixFileService.h"
#include "host/files/RemoteFileService.h"

namespace orv::host {

// Hands each call to the service that the path or the descriptor belongs to. Safe from any thread.
class HostFiles final : public IFileService {
 public:
  explicit HostFiles(PosixFileService::FaultHook onWriteFault)
      : local_(std::move(onWriteFault)), remote_(RemoteFiles::shared()) {}

  int open(const char* path, int flags, int mode, int reserved) override {
    return at(path).open(path, flags, mode, reserved);
  }
  int close(int fd, int reserved) override { return at(fd).close(fd, reserved); }
  int read(int fd, i64 position, void* data, u32 size) override {
    return at(fd).read(fd, position, data, size);
  }
  int write(int fd, i64 position, const void* data, u32 size) override {
    return at(fd).write(fd, position, data, size);
  }
  int fstat(int fd, FileStat* record, int reserved) override { return at(fd).fstat(fd, record, reserved); }
  int stat(const char* path, FileStat* record, int reserved) override {
    return at(path).stat(path, record, reserved);
  }
  int unlink(const char* path, int reserved) override { return at(path).unlink(path, reserved); }
  void mkdir(const char* path) override { at(path).mkdir(path); }

  FileCalls calls() const { return local_.calls(); }

 private:
  IFileService& at(const char* path);
  IFileService& at(int fd) {
    if (fd >= RemoteFileService::kFirstDescriptor) return remote_;
    return local_;
  }

  PosixFileService local_;
  RemoteFileService remote_;
};

}  // namespace orv::host
