#include "host/files/ShortenedFiles.h"

namespace orv::host {

void ShortenedFiles::shorten(const std::string& path, i64 size, i64 shown) {
  const std::lock_guard lock(mutex_);
  byPath_[path] = {size, shown};
}

int ShortenedFiles::open(const char* path, int flags, int mode, int reserved) {
  const int fd = below_.open(path, flags, mode, reserved);
  const std::lock_guard lock(mutex_);
  const auto found = byPath_.find(path);
  if (fd != -1 && found != byPath_.end()) byDescriptor_[fd] = found->second;
  return fd;
}

int ShortenedFiles::close(int fd, int reserved) {
  {
    // First: once closed, the number may come back from an open on another thread.
    const std::lock_guard lock(mutex_);
    byDescriptor_.erase(fd);
  }
  return below_.close(fd, reserved);
}

template <class Key, class Name>
void ShortenedFiles::apply(const std::map<Key, Sizes>& shortened, const Name& name, FileStat* record) {
  const std::lock_guard lock(mutex_);
  const auto found = shortened.find(name);
  if (found != shortened.end() && record->size == found->second.real) record->size = found->second.shown;
}

int ShortenedFiles::fstat(int fd, FileStat* record, int reserved) {
  const int result = below_.fstat(fd, record, reserved);
  if (result != -1) apply(byDescriptor_, fd, record);
  return result;
}

int ShortenedFiles::stat(const char* path, FileStat* record, int reserved) {
  const int result = below_.stat(path, record, reserved);
  if (result != -1) apply(byPath_, path, record);
  return result;
}

}  // namespace orv::host
