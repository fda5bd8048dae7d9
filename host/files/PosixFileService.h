// The file service of the contract over a POSIX file system.

#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "host/files/ChangeStamps.h"
#include "host/files/Descriptor.h"
#include "modules/streams/contract/IFileService.h"

namespace orv::host {

// The first write of an open file that failed or fell short.
struct WriteFault {
  std::string path;  // Native.
  i64 position;
  u32 wanted;
  u32 written;
  int error;  // As in errno.
};

// Paths are module paths as in ModulePath.h. Only regular files are opened. A file that holds bytes is
// never truncated: asked to create one that is there and not empty, `open` answers -1 with EEXIST. After any
// failure errno says why. Safe from any thread.
class PosixFileService final : public IFileService {
 public:
  // Called from the thread that writes, with no lock held.
  using FaultHook = std::function<void(const WriteFault&)>;

  explicit PosixFileService(FaultHook onWriteFault = {}, ChangeStamps::Clock now = systemTime);
  ~PosixFileService();

  int open(const char* path, int flags, int mode, int reserved) override;
  int close(int fd, int reserved) override;
  int read(int fd, i64 position, void* data, u32 size) override;
  int write(int fd, i64 position, const void* data, u32 size) override;
  int fstat(int fd, FileStat* record, int reserved) override;
  int stat(const char* path, FileStat* record, int reserved) override;
  int unlink(const char* path, int reserved) override;
  // Makes missing parents too.
  void mkdir(const char* path) override;

 private:
  // A file that is open for writing.
  struct Writer {
    std::string path;
    dev_t device;
    ino_t inode;
    std::atomic<bool> faultTold{false};
  };

  int admit(const Descriptor& file, int flags, const std::string& path);
  std::shared_ptr<Writer> writerOf(int fd);
  void afterWrite(int fd, const WriteFault& outcome);
  void fill(FileStat* record, const struct stat& status);

  const FaultHook onWriteFault_;
  ChangeStamps stamps_;
  std::mutex writersMutex_;
  std::map<int, std::shared_ptr<Writer>> writers_;  // By descriptor, under writersMutex_.
};

}  // namespace orv::host
