// When what is recorded is made to outlast a power cut: a layer over any file service.

#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "modules/streams/contract/IFileService.h"

namespace orv::host {

enum class Sync {
  none,      // The system writes when it likes.
  flush,     // Each flush is on the disk when it returns.
  interval,  // One flush each so often is.
};

// The system's own means, each of which returns false on failure with the reason in errno.
struct Syncer {
  std::function<bool(int fd)> data;
  std::function<bool(const std::string& path)> folderOf;  // Of a module path.
};

Syncer systemSyncer();

// Orders the writes of each file that is open for writing: what was appended is on the disk before bytes that
// were there already are written over (the flags byte, the metadata), and all of it when the file is closed.
// A new file's entry in its folder follows once. So whatever the moment of a power cut, all bytes in front of
// the flush under way are there. A failed sync makes the write that waited for it fail, or is reported at the
// close; nothing after it is promised. Safe from any thread.
class SyncedFiles final : public IFileService {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kInterval{5};
  // Called with a module path, and the reason in errno, when a file can't be synced as it is closed.
  using FaultHook = std::function<void(const std::string& path)>;

  // `below` must outlive the object.
  SyncedFiles(IFileService& below, Sync policy, Syncer syncer, FaultHook onFault = {});

  int open(const char* path, int flags, int mode, int reserved) override;
  int close(int fd, int reserved) override;
  int read(int fd, i64 position, void* data, u32 size) override {
    return below_.read(fd, position, data, size);
  }
  int write(int fd, i64 position, const void* data, u32 size) override;
  int fstat(int fd, FileStat* record, int reserved) override { return below_.fstat(fd, record, reserved); }
  int stat(const char* path, FileStat* record, int reserved) override {
    return below_.stat(path, record, reserved);
  }
  int unlink(const char* path, int reserved) override { return below_.unlink(path, reserved); }
  void mkdir(const char* path) override { below_.mkdir(path); }

 private:
  struct Writer {
    std::string path;
    i64 end = 0;            // Of the file.
    bool appended = false;  // Since the last sync,
    bool changed = false;   // or written at all.
    bool isNew = false;     // Its entry in the folder isn't synced.
    bool isDue = false;     // Synced this time.
  };

  bool sync(int fd, Writer& writer);
  bool isDue();

  IFileService& below_;
  const Sync policy_;
  const Syncer syncer_;
  const FaultHook onFault_;
  std::mutex mutex_;
  std::map<int, Writer> writers_;
  Clock::time_point nextSync_{};
};

}  // namespace orv::host
