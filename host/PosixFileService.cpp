#include "PosixFileService.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>

#include "ModulePath.h"

namespace orv::host {

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

// The flags of the contract in this platform's numbers, -1 for any other. None truncates: a file that may be
// truncated is empty already, and one that holds bytes must not lose them between a check and the opening.
int nativeFlags(int flags) {
  switch (flags) {
    case openflags::readOnly:
      return O_RDONLY;
    case openflags::readWrite:
      return O_RDWR;
    case openflags::createTruncate:
      return O_RDWR | O_CREAT;
    default:
      return -1;
  }
}

// Closes `fd` and leaves errno at `error`.
void abandon(int fd, int error) {
  ::close(fd);
  errno = error;
}

// `fd` or a copy of it above the standard streams: a program may run with those closed, and a module may take
// descriptor 0 for none.
int aboveStandardStreams(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  abandon(fd, errno);
  return moved;
}

// Moves up to `size` bytes by repeated calls of `step`(offset, bytes left). The bytes moved; -1 if the first
// call failed. `*error` is 0 unless a call failed.
template <class Step>
int moveBytes(u32 size, int* error, Step step) {
  const u32 wanted = std::min<u32>(size, INT_MAX);
  u32 done = 0;
  *error = 0;
  while (done < wanted) {
    const ssize_t moved = step(done, wanted - done);
    if (moved > 0) {
      done += static_cast<u32>(moved);
    } else if (moved == 0 || errno != EINTR) {
      if (moved < 0) *error = errno;
      break;
    }
  }
  return done == 0 && *error != 0 ? -1 : static_cast<int>(done);
}

}  // namespace

PosixFileService::PosixFileService(FaultHook onWriteFault) : onWriteFault_(std::move(onWriteFault)) {}

PosixFileService::~PosixFileService() {
  for (const auto& [fd, writer] : writers_) ::close(fd);
}

int PosixFileService::open(const char* path, int flags, int mode, int) {
  counters_.open.fetch_add(1, kRelaxed);
  const int native = nativeFlags(flags);
  if (native < 0) {
    errno = EINVAL;
    return -1;
  }
  const std::string name = toNativePath(path);
  // O_NONBLOCK: a named pipe must be refused, not waited for. It means nothing to a regular file.
  const int fd = aboveStandardStreams(
      ::open(name.c_str(), native | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, static_cast<mode_t>(mode)));
  return fd >= 0 && admit(fd, flags, name) ? fd : -1;
}

bool PosixFileService::admit(int fd, int flags, const std::string& path) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return abandon(fd, errno), false;
  if (!S_ISREG(status.st_mode)) return abandon(fd, S_ISDIR(status.st_mode) ? EISDIR : ESPIPE), false;
  if (flags == openflags::createTruncate && status.st_size > 0) return abandon(fd, EEXIST), false;
  if (flags != openflags::readOnly) {
    auto writer = std::make_shared<Writer>();
    writer->path = path;
    writer->device = status.st_dev;
    writer->inode = status.st_ino;
    const std::lock_guard lock(writersMutex_);
    writers_[fd] = std::move(writer);
  }
  return true;
}

int PosixFileService::close(int fd, int) {
  counters_.close.fetch_add(1, kRelaxed);
  {
    // First: once closed, the number may come back from an open on another thread.
    const std::lock_guard lock(writersMutex_);
    writers_.erase(fd);
  }
  return ::close(fd);
}

int PosixFileService::read(int fd, i64 position, void* data, u32 size) {
  counters_.read.fetch_add(1, kRelaxed);
  int error = 0;
  const int done = moveBytes(size, &error, [&](u32 offset, u32 left) {
    return ::pread(fd, static_cast<u8*>(data) + offset, left, position + offset);
  });
  if (done > 0) counters_.bytesRead.fetch_add(static_cast<u64>(done), kRelaxed);
  errno = error;
  return done;
}

int PosixFileService::write(int fd, i64 position, const void* data, u32 size) {
  counters_.write.fetch_add(1, kRelaxed);
  int error = 0;
  const int done = moveBytes(size, &error, [&](u32 offset, u32 left) {
    return ::pwrite(fd, static_cast<const u8*>(data) + offset, left, position + offset);
  });
  const u32 written = static_cast<u32>(std::max(done, 0));
  counters_.bytesWritten.fetch_add(written, kRelaxed);
  afterWrite(fd, {{}, position, size, written, error});
  errno = error;
  return done;
}

void PosixFileService::afterWrite(int fd, const WriteFault& outcome) {
  const std::shared_ptr<Writer> writer = writerOf(fd);
  if (!writer) return;
  if (outcome.written > 0) stamps_.noteWrite(writer->device, writer->inode);
  if (outcome.written == outcome.wanted || writer->faultTold.exchange(true) || !onWriteFault_) return;
  WriteFault fault = outcome;
  fault.path = writer->path;
  onWriteFault_(fault);
}

std::shared_ptr<PosixFileService::Writer> PosixFileService::writerOf(int fd) {
  const std::lock_guard lock(writersMutex_);
  const auto place = writers_.find(fd);
  return place == writers_.end() ? nullptr : place->second;
}

int PosixFileService::fstat(int fd, FileStat* record, int) {
  counters_.fstat.fetch_add(1, kRelaxed);
  struct stat status {};
  if (::fstat(fd, &status) != 0) return -1;
  fill(record, status);
  return 0;
}

int PosixFileService::stat(const char* path, FileStat* record, int) {
  counters_.stat.fetch_add(1, kRelaxed);
  struct stat status {};
  if (::stat(toNativePath(path).c_str(), &status) != 0) return -1;
  fill(record, status);
  return 0;
}

// The high half tells the seconds of the file's own time, for whoever looks at the whole number.
void PosixFileService::fill(FileStat* record, const struct stat& status) {
  *record = {};
  record->size = status.st_size;
  record->modificationTime =
      static_cast<i64>(static_cast<u64>(status.st_mtim.tv_sec) << 32 | stamps_.of(status));
}

int PosixFileService::unlink(const char* path, int) {
  counters_.unlink.fetch_add(1, kRelaxed);
  return ::unlink(toNativePath(path).c_str());
}

void PosixFileService::mkdir(const char* path) {
  counters_.mkdir.fetch_add(1, kRelaxed);
  std::error_code ignored;  // The module reads no result: it finds out when it opens the file.
  std::filesystem::create_directories(toNativePath(path), ignored);
}

FileCalls PosixFileService::calls() const {
  const auto& c = counters_;
  return {c.open, c.close, c.read, c.write, c.fstat, c.stat, c.unlink, c.mkdir, c.bytesRead, c.bytesWritten};
}

}  // namespace orv::host
