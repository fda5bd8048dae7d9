// Open files of the host's file service.

#pragma once

#include "modules/streams/contract/IFileService.h"

namespace orv::flv {

// The size of an open file; -1 if the host doesn't know it.
inline i64 sizeOf(IFileService* service, int fd) {
  FileStat record{};
  return service->fstat(fd, &record, 0) == 0 ? record.size : -1;
}

// A file that is open for reading as long as this lives.
class ReadHandle {
 public:
  ReadHandle(IFileService* service, const char* path)
      : service_(service), fd_(service->open(path, openflags::readOnly, openflags::ownerReadWrite, 0)) {}
  ~ReadHandle() {
    if (isOpen()) service_->close(fd_, 0);
  }
  ReadHandle(const ReadHandle&) = delete;
  ReadHandle& operator=(const ReadHandle&) = delete;

  bool isOpen() const { return fd_ != -1; }
  int fd() const { return fd_; }

 private:
  IFileService* service_;
  int fd_;
};

}  // namespace orv::flv
