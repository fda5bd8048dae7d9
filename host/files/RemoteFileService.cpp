#include "host/files/RemoteFileService.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "host/files/ModulePath.h"

namespace orv::host {

namespace {

int refuse(int error) {
  errno = error;
  return -1;
}

// No object has a time of change that its server is sure of; the stamp says all.
void fill(FileStat* record, const RemoteFile::Look& look) {
  *record = {};
  record->size = look.size;
  record->modificationTime = look.stamp;
}

// -1 with errno where `work` throws.
template <class Work>
int guarded(Work work) {
  try {
    return work();
  } catch (const RemoteChanged&) {
    return refuse(ESTALE);
  } catch (const HttpFault& fault) {
    return refuse(fault.isGone() ? ENOENT : EIO);
  } catch (const std::exception&) {
    return refuse(ENOMEM);
  }
}

}  // namespace

int RemoteFileService::open(const char* path, int flags, int, int) {
  if (flags != openflags::readOnly) return refuse(EROFS);
  const auto file = files_.find(toNativePath(path));
  return guarded([&] {
    const RemoteFile::Look look = file->look();
    const std::lock_guard lock(mutex_);
    const int fd = next_;
    next_ = next_ == INT_MAX ? kFirstDescriptor : next_ + 1;
    open_[fd] = {file, look};
    return fd;
  });
}

int RemoteFileService::close(int fd, int) {
  const std::lock_guard lock(mutex_);
  return open_.erase(fd) ? 0 : refuse(EBADF);
}

std::optional<RemoteFileService::Open> RemoteFileService::find(int fd) {
  const std::lock_guard lock(mutex_);
  const auto place = open_.find(fd);
  if (place == open_.end()) return std::nullopt;
  return place->second;
}

int RemoteFileService::read(int fd, i64 position, void* data, u32 size) {
  const auto open = find(fd);
  if (!open) return refuse(EBADF);
  return guarded([&] {
    return static_cast<int>(
        open->file->read(open->look.stamp, position, static_cast<u8*>(data), std::min<u32>(size, INT_MAX)));
  });
}

int RemoteFileService::write(int, i64, const void*, u32) {
  return refuse(EROFS);
}

int RemoteFileService::fstat(int fd, FileStat* record, int) {
  const auto open = find(fd);
  if (!open) return refuse(EBADF);
  fill(record, open->look);
  return 0;
}

int RemoteFileService::stat(const char* path, FileStat* record, int) {
  const auto file = files_.find(toNativePath(path));
  return guarded([&] {
    fill(record, file->look());
    return 0;
  });
}

int RemoteFileService::unlink(const char*, int) {
  return refuse(EROFS);
}

}  // namespace orv::host
