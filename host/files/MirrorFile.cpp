#include "host/files/MirrorFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "modules/streams/contract/IFileService.h"

namespace orv::host {

namespace {

constexpr mode_t kMode = 0666;  // The user's mask takes its share.

}  // namespace

int MirrorFile::fail(const char* what, int error) {
  behind_ = true;
  file_.close();
  onFault_(fmt::format("{}: {}: {}; the copy is no longer kept", names_.copy, what,
                       error ? std::strerror(error) : "the write fell short"));
  return -1;
}

// A link to the recorded file, perhaps made since the start, must not be emptied or written to.
bool MirrorFile::isSourceItself() const {
  struct stat source {};
  const auto copy = file_.status();
  return copy && ::stat(names_.source.c_str(), &source) == 0 && copy->st_dev == source.st_dev &&
         copy->st_ino == source.st_ino;
}

// Makes a file that isn't there. Whoever attaches the mirror sees to what the copy lacks.
bool MirrorFile::isOpen() {
  if (file_) return true;
  file_ = Descriptor::open(names_.copy, O_RDWR | O_CREAT, kMode);
  if (!file_) return fail("cannot be opened", errno), false;
  if (isSourceItself()) return fail("is the recorded file itself", EINVAL), false;
  return true;
}

bool MirrorFile::moveAside() {
  for (int number = 1;; ++number) {
    const std::string aside = fmt::format("{}.{}", names_.copy, number);
    if (::renameat2(AT_FDCWD, names_.copy.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
      onFault_(fmt::format("{}: a new file begins; the copy of the old one is {}", names_.copy, aside));
      return true;
    }
    if (errno == ENOENT) return true;  // Moved away as the recording was.
    if (errno != EEXIST) return fail("cannot be moved aside", errno), false;
  }
}

int MirrorFile::open(const KTString& name, int flags, int) {
  if (!serves(name)) return -1;
  file_.close();
  const bool isNew = flags == openflags::createTruncate;
  if (isNew && hasBegun_ && !moveAside()) return -1;
  if (!isOpen()) return -1;
  hasBegun_ = true;
  cursor_ = 0;
  if (isNew && ::ftruncate(file_.get(), 0) != 0) return fail("cannot be emptied", errno);
  return 0;
}

int MirrorFile::close(const KTString& name) {
  if (!serves(name)) return -1;
  if (!file_.close()) return fail("cannot be closed", errno);
  return 0;
}

int MirrorFile::write(const KTString& name, const void* data, u32 size) {
  if (!serves(name) || !isOpen()) return -1;
  const Transfer done = writeAt(file_.get(), cursor_, data, size);
  cursor_ += static_cast<i64>(done.bytes);
  return done.bytes == size ? static_cast<int>(size) : fail("cannot be written", done.error);
}

int MirrorFile::seek(const KTString& name, i64 offset, int whence) {
  if (!serves(name) || !isOpen()) return -1;
  const i64 base = whence == SEEK_END ? ::lseek(file_.get(), 0, SEEK_END) : 0;
  if (base < 0) return fail("cannot be measured", errno);
  cursor_ = base + offset;
  return 0;
}

int MirrorFile::unlink(const KTString& name) {
  if (!serves(name)) return -1;
  file_.close();
  if (::unlink(names_.copy.c_str()) != 0 && errno != ENOENT) return fail("cannot be removed", errno);
  return 0;
}

}  // namespace orv::host
