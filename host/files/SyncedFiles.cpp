#include "host/files/SyncedFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "host/files/Descriptor.h"
#include "host/files/ModulePath.h"

namespace orv::host {

Syncer systemSyncer() {
  return {[](int fd) { return ::fdatasync(fd) == 0; },
          [](const std::string& path) {
            const auto folder = std::filesystem::path(toNativePath(path.c_str())).parent_path();
            const Descriptor opened = Descriptor::open(folder.empty() ? "." : folder.string(), O_RDONLY, 0);
            return opened && ::fsync(opened.get()) == 0;
          }};
}

SyncedFiles::SyncedFiles(IFileService& below, Sync policy, Syncer syncer, FaultHook onFault)
    : below_(below), policy_(policy), syncer_(std::move(syncer)), onFault_(std::move(onFault)) {}

int SyncedFiles::open(const char* path, int flags, int mode, int reserved) {
  const int fd = below_.open(path, flags, mode, reserved);
  if (fd == -1 || flags == openflags::readOnly || policy_ == Sync::none) return fd;
  FileStat record{};
  below_.fstat(fd, &record, 0);
  const std::lock_guard lock(mutex_);
  const bool isNew = flags == openflags::createTruncate;
  writers_[fd] = {.path = path, .end = record.size, .isNew = isNew, .isDue = isNew || isDue()};
  return fd;
}

bool SyncedFiles::isDue() {
  if (policy_ == Sync::flush) return true;
  const auto now = Clock::now();
  if (now < nextSync_) return false;
  nextSync_ = now + kInterval;
  return true;
}

// A descriptor belongs to one stream, which the contract's caller uses from one place at a time.
int SyncedFiles::write(int fd, i64 position, const void* data, u32 size) {
  std::unique_lock lock(mutex_);
  const auto found = writers_.find(fd);
  Writer* const writer = found == writers_.end() ? nullptr : &found->second;
  lock.unlock();
  if (!writer) return below_.write(fd, position, data, size);
  const bool overwrites = position < writer->end;
  if (overwrites && writer->appended && writer->isDue && !sync(fd, *writer)) return -1;
  const int written = below_.write(fd, position, data, size);
  if (written <= 0) return written;
  writer->appended |= !overwrites;
  writer->changed = true;
  writer->end = std::max(writer->end, position + written);
  return written;
}

bool SyncedFiles::sync(int fd, Writer& writer) {
  if (!syncer_.data(fd)) return false;
  writer.appended = writer.changed = false;
  if (writer.isNew && !syncer_.folderOf(writer.path)) return false;
  writer.isNew = false;
  return true;
}

int SyncedFiles::close(int fd, int reserved) {
  Writer writer;
  {
    const std::lock_guard lock(mutex_);
    const auto found = writers_.find(fd);
    if (found == writers_.end()) return below_.close(fd, reserved);
    writer = std::move(found->second);
    writers_.erase(found);
  }
  const bool good = !writer.isDue || (!writer.changed && !writer.isNew) || sync(fd, writer);
  if (!good && onFault_) onFault_(writer.path);
  return below_.close(fd, reserved);
}

}  // namespace orv::host
