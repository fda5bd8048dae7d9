// The contract's file service over objects on web servers: reads alone.

#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "host/files/RemoteFile.h"
#include "modules/streams/contract/IFileService.h"

namespace orv::host {

// An open descriptor reads one state of the object: once that has become another, reads answer -1 with
// ESTALE, and a stat shows a new modification time. A server that can't be read gives EIO; the file knows
// why. What writes gives EROFS. Safe from any thread.
class RemoteFileService final : public IFileService {
 public:
  // Its descriptors start here, far above the system's.
  static constexpr int kFirstDescriptor = 1 << 30;

  explicit RemoteFileService(RemoteFiles& files) : files_(files) {}

  int open(const char* path, int flags, int mode, int reserved) override;
  int close(int fd, int reserved) override;
  int read(int fd, i64 position, void* data, u32 size) override;
  int write(int fd, i64 position, const void* data, u32 size) override;
  int fstat(int fd, FileStat* record, int reserved) override;
  int stat(const char* path, FileStat* record, int reserved) override;
  int unlink(const char* path, int reserved) override;
  void mkdir(const char*) override {}

 private:
  struct Open {
    std::shared_ptr<RemoteFile> file;
    RemoteFile::Look look;
  };

  std::optional<Open> find(int fd);

  RemoteFiles& files_;
  std::mutex mutex_;
  // Under mutex_.
  std::map<int, Open> open_;
  int next_ = kFirstDescriptor;
};

}  // namespace orv::host
