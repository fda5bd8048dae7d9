#include "host/files/HostFiles.h"

#include <algorithm>

#include "host/files/ModulePath.h"

namespace orv::host {

namespace {

void add(std::atomic<u64>& counter, u64 count) {
  counter.fetch_add(count, std::memory_order_relaxed);
}

u64 bytesOf(int result) {
  return static_cast<u64>(std::max(result, 0));
}

}  // namespace

IFileService& HostFiles::at(const char* path) {
  if (isRemote(path)) return remote_;
  return local_;
}

IFileService& HostFiles::at(int fd) {
  if (fd >= RemoteFileService::kFirstDescriptor) return remote_;
  return local_;
}

int HostFiles::open(const char* path, int flags, int mode, int reserved) {
  add(counters_.open, 1);
  return at(path).open(path, flags, mode, reserved);
}

int HostFiles::close(int fd, int reserved) {
  add(counters_.close, 1);
  return at(fd).close(fd, reserved);
}

int HostFiles::read(int fd, i64 position, void* data, u32 size) {
  add(counters_.read, 1);
  const int done = at(fd).read(fd, position, data, size);
  add(counters_.bytesRead, bytesOf(done));
  return done;
}

int HostFiles::write(int fd, i64 position, const void* data, u32 size) {
  add(counters_.write, 1);
  const int done = at(fd).write(fd, position, data, size);
  add(counters_.bytesWritten, bytesOf(done));
  return done;
}

int HostFiles::fstat(int fd, FileStat* record, int reserved) {
  add(counters_.fstat, 1);
  return at(fd).fstat(fd, record, reserved);
}

int HostFiles::stat(const char* path, FileStat* record, int reserved) {
  add(counters_.stat, 1);
  return at(path).stat(path, record, reserved);
}

int HostFiles::unlink(const char* path, int reserved) {
  add(counters_.unlink, 1);
  return at(path).unlink(path, reserved);
}

void HostFiles::mkdir(const char* path) {
  add(counters_.mkdir, 1);
  at(path).mkdir(path);
}

FileCalls HostFiles::calls() const {
  const Counters& c = counters_;
  return {c.open, c.close, c.read, c.write, c.fstat, c.stat, c.unlink, c.mkdir, c.bytesRead, c.bytesWritten};
}

}  // namespace orv::host
