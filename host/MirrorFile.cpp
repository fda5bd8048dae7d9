#include "MirrorFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "modules/streams/contract/IFileService.h"

namespace orv::host {

namespace {

constexpr mode_t kMode = 0600;  // As the module makes its own files.

}  // namespace

MirrorFile::~MirrorFile() {
  closeFile();
}

void MirrorFile::closeFile() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

int MirrorFile::fail(const char* what, int error) {
  behind_ = true;
  closeFile();
  onFault_(fmt::format("{}: {}: {}; the copy isn't kept any longer", names_.copy, what,
                       error ? std::strerror(error) : "the write fell short"));
  return -1;
}

// A link to the recorded file, perhaps made since the start, must not be emptied or written to.
bool MirrorFile::isSourceItself() const {
  struct stat copy {
  }, source{};
  return ::fstat(fd_, &copy) == 0 && ::stat(names_.source.c_str(), &source) == 0 &&
         copy.st_dev == source.st_dev && copy.st_ino == source.st_ino;
}

// A file that isn't there is made: whether what it lacks has been copied is for the attaching side to see to.
bool MirrorFile::isOpen() {
  if (fd_ >= 0) return true;
  fd_ = ::open(names_.copy.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, kMode);
  if (fd_ < 0) return fail("can't be opened", errno), false;
  if (isSourceItself()) return fail("is the recorded file itself", EINVAL), false;
  return true;
}

int MirrorFile::open(const KTString& name, int flags, int) {
  if (!serves(name)) return -1;
  closeFile();
  if (!isOpen()) return -1;
  cursor_ = 0;
  if (flags == openflags::createTruncate && ::ftruncate(fd_, 0) != 0) return fail("can't be emptied", errno);
  return 0;
}

int MirrorFile::close(const KTString& name) {
  if (!serves(name)) return -1;
  if (fd_ >= 0 && ::close(std::exchange(fd_, -1)) != 0) return fail("can't be closed", errno);
  return 0;
}

int MirrorFile::write(const KTString& name, const void* data, u32 size) {
  if (!serves(name) || !isOpen()) return -1;
  const auto* const bytes = static_cast<const u8*>(data);
  for (u32 done = 0; done < size;) {
    const ssize_t written = ::pwrite(fd_, bytes + done, size - done, cursor_);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return fail("can't be written", written < 0 ? errno : 0);
    done += static_cast<u32>(written);
    cursor_ += written;
  }
  return static_cast<int>(size);
}

int MirrorFile::seek(const KTString& name, i64 offset, int whence) {
  if (!serves(name) || !isOpen()) return -1;
  const i64 base = whence == SEEK_END ? ::lseek(fd_, 0, SEEK_END) : 0;
  if (base < 0) return fail("has no end to be found", errno);
  cursor_ = base + offset;
  return 0;
}

int MirrorFile::unlink(const KTString& name) {
  if (!serves(name)) return -1;
  closeFile();
  if (::unlink(names_.copy.c_str()) != 0 && errno != ENOENT) return fail("can't be removed", errno);
  return 0;
}

}  // namespace orv::host
