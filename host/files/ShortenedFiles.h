// Files shown shorter than they are: so the module finds the last whole tag of a file whose torn end is
// longer than its search.

#pragma once

#include <map>
#include <mutex>
#include <string>

#include "modules/streams/contract/IFileService.h"

namespace orv::host {

// A layer over any file service. Only sizes are changed: who asks for them reads no farther. Safe from any
// thread.
class ShortenedFiles final : public IFileService {
 public:
  // `below` must outlive the object.
  explicit ShortenedFiles(IFileService& below) : below_(below) {}

  // Shows the file at a module path with `shown` bytes as long as it has `size` of them. Once it has grown,
  // it is shown as it is.
  void shorten(const std::string& path, i64 size, i64 shown);

  int open(const char* path, int flags, int mode, int reserved) override;
  int close(int fd, int reserved) override;
  int read(int fd, i64 position, void* data, u32 size) override {
    return below_.read(fd, position, data, size);
  }
  int write(int fd, i64 position, const void* data, u32 size) override {
    return below_.write(fd, position, data, size);
  }
  int fstat(int fd, FileStat* record, int reserved) override;
  int stat(const char* path, FileStat* record, int reserved) override;
  int unlink(const char* path, int reserved) override { return below_.unlink(path, reserved); }
  void mkdir(const char* path) override { below_.mkdir(path); }

 private:
  struct Sizes {
    i64 real, shown;
  };
  template <class Key, class Name>
  void apply(const std::map<Key, Sizes>& shortened, const Name& name, FileStat* record);

  IFileService& below_;
  std::mutex mutex_;
  // Under mutex_.
  std::map<std::string, Sizes> byPath_;
  std::map<int, Sizes> byDescriptor_;
};

}  // namespace orv::host
