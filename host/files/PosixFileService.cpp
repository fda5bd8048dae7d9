#include "host/files/PosixFileService.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>

#include "host/files/ModulePath.h"

namespace orv::host {

namespace {

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

// New files get what the user's mask leaves, whatever mode the module asks for.
constexpr mode_t kMode = 0666;

u32 servedSize(u32 size) {
  return std::min<u32>(size, INT_MAX);
}

// Returns what the contract wants: the bytes moved; -1 if the first call failed, with the reason in errno.
int answerOf(const Transfer& transfer) {
  errno = transfer.error;
  return transfer.bytes == 0 && transfer.error != 0 ? -1 : static_cast<int>(transfer.bytes);
}

}  // namespace

PosixFileService::PosixFileService(FaultHook onWriteFault, ChangeStamps::Clock now)
    : onWriteFault_(std::move(onWriteFault)), stamps_(now) {}

PosixFileService::~PosixFileService() {
  for (const auto& [fd, writer] : writers_) ::close(fd);
}

int PosixFileService::open(const char* path, int flags, int, int) {
  const int native = nativeFlags(flags);
  if (native < 0) {
    errno = EINVAL;
    return -1;
  }
  const std::string name = toNativePath(path);
  Descriptor file = Descriptor::open(name, native, kMode);
  if (!file) return -1;
  if (const int refusal = admit(file, flags, name)) {
    file.close();
    errno = refusal;
    return -1;
  }
  return file.release();
}

// Returns 0, or why the file can't be served, as in errno.
int PosixFileService::admit(const Descriptor& file, int flags, const std::string& path) {
  const auto status = file.status();
  if (!status) return errno;
  if (!S_ISREG(status->st_mode)) return S_ISDIR(status->st_mode) ? EISDIR : ESPIPE;
  if (flags == openflags::createTruncate && status->st_size > 0) return EEXIST;
  if (flags == openflags::readOnly) return 0;
  auto writer = std::make_shared<Writer>();
  writer->path = path;
  writer->device = status->st_dev;
  writer->inode = status->st_ino;
  const std::lock_guard lock(writersMutex_);
  writers_[file.get()] = std::move(writer);
  return 0;
}

int PosixFileService::close(int fd, int) {
  {
    // First: once closed, the number may come back from an open on another thread.
    const std::lock_guard lock(writersMutex_);
    writers_.erase(fd);
  }
  return ::close(fd);
}

int PosixFileService::read(int fd, i64 position, void* data, u32 size) {
  const Transfer done = readAt(fd, position, data, servedSize(size));
  return answerOf(done);
}

int PosixFileService::write(int fd, i64 position, const void* data, u32 size) {
  const Transfer done = writeAt(fd, position, data, servedSize(size));
  afterWrite(fd, {{}, position, size, static_cast<u32>(done.bytes), done.error});
  return answerOf(done);
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
  struct stat status {};
  if (::fstat(fd, &status) != 0) return -1;
  fill(record, status);
  return 0;
}

int PosixFileService::stat(const char* path, FileStat* record, int) {
  struct stat status {};
  if (::stat(toNativePath(path).c_str(), &status) != 0) return -1;
  fill(record, status);
  return 0;
}

// The high half holds the seconds of the file's own time, for whoever looks at the whole number.
void PosixFileService::fill(FileStat* record, const struct stat& status) {
  *record = {};
  record->size = status.st_size;
  record->modificationTime =
      static_cast<i64>(static_cast<u64>(status.st_mtim.tv_sec) << 32 | stamps_.of(status));
}

int PosixFileService::unlink(const char* path, int) {
  return ::unlink(toNativePath(path).c_str());
}

void PosixFileService::mkdir(const char* path) {
  std::error_code ignored;  // The module reads no result: it finds out when it opens the file.
  std::filesystem::create_directories(toNativePath(path), ignored);
}

}  // namespace orv::host
