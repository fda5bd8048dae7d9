#include "host/files/FileSource.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/text/Failure.h"

namespace orv::host {

FileSource::FileSource(const std::string& name) : name_(name), identity_(checkReadable(name)), file_(name) {
  if (!file_.isOpen()) throw hostFault(name_ + ": " + std::strerror(errno));
  if (file_.file()) ::posix_fadvise(file_.file().get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

std::size_t FileSource::read(i64 position, u8* out, std::size_t size) {
  size = static_cast<std::size_t>(std::clamp<i64>(identity_.size - position, 0, static_cast<i64>(size)));
  if (!file_.file()) return file_.read(position, out, size);
  const Transfer done = readAt(file_.file().get(), position, out, size);
  if (done.error) throw hostFault(name_ + ": " + std::strerror(done.error));
  return done.bytes;
}

std::size_t PipeSource::read(i64, u8* out, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(STDIN_FILENO, out + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw hostFault(name_ + ": " + std::strerror(errno));
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

std::unique_ptr<ByteSource> openSource(const std::string& name) {
  if (name == "-") return std::make_unique<PipeSource>();
  return std::make_unique<FileSource>(name);
}

}  // namespace orv::host
