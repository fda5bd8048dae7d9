#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Console.h"
#include "Failure.h"

namespace orv::host {

namespace {

constexpr std::size_t kBufferSize = 256 * 1024;
constexpr mode_t kMode = 0666;  // The user's mask takes its share.

struct stat statusOf(int fd) {
  struct stat status {};
  ::fstat(fd, &status);
  return status;
}

}  // namespace

OutputFile::OutputFile(const std::string& name, Existing existing, const FileIdentity& input)
    : name_(name == "-" ? "standard output" : name) {
  if (name == "-") {
    const int data = dataDescriptor();
    if (isatty(data)) throw hostFault("media isn't written to a terminal; give a file or a pipe");
    fd_ = ::fcntl(data, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (fd_ < 0) fail(errno);
    const struct stat status = statusOf(fd_);
    if (input.isSame({status.st_dev, status.st_ino, 0})) throw hostFault(name_ + " is the input file itself");
  } else {
    fd_ = openNew(existing, input);
  }
  buffer_.reserve(kBufferSize);
}

// Nothing is truncated before it is known what it is.
int OutputFile::openNew(Existing existing, const FileIdentity& input) {
  int fd = ::open(name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, kMode);
  const bool isNew = fd >= 0;
  if (!isNew && errno == EEXIST) fd = ::open(name_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) fail(errno);
  const struct stat status = statusOf(fd);
  isFile_ = S_ISREG(status.st_mode);
  std::string refusal;
  if (input.isSame({status.st_dev, status.st_ino, 0})) {
    refusal = "is the input file itself";
  } else if (isFile_ && !isNew && existing == Existing::refuse) {
    refusal = "exists; --force replaces it";
  } else if (isFile_ && !isNew && ::ftruncate(fd, 0) != 0) {
    refusal = std::strerror(errno);
  }
  if (refusal.empty()) return fd;
  ::close(fd);
  throw hostFault(name_ + ": " + refusal);
}

OutputFile::~OutputFile() {
  if (fd_ >= 0) ::close(fd_);
}

void OutputFile::write(const void* data, std::size_t size) {
  const auto* const bytes = static_cast<const u8*>(data);
  if (size > kBufferSize - buffer_.size()) flush();
  if (size > kBufferSize) {
    writeOut(bytes, size);
  } else {
    buffer_.insert(buffer_.end(), bytes, bytes + size);
  }
}

void OutputFile::flush() {
  writeOut(buffer_.data(), buffer_.size());
  buffer_.clear();
}

void OutputFile::writeOut(const u8* data, std::size_t size) {
  while (size > 0) {
    const ssize_t done = ::write(fd_, data, size);
    if (done < 0 && errno != EINTR) fail(errno);
    if (done <= 0) continue;
    data += done;
    size -= static_cast<std::size_t>(done);
  }
}

void OutputFile::patch(i64 position, u8 byte) {
  flush();
  if (::pwrite(fd_, &byte, 1, position) != 1) fail(errno);
}

void OutputFile::close() {
  flush();
  const int fd = std::exchange(fd_, -1);
  if (::close(fd) != 0) fail(errno);
}

void OutputFile::fail(int error) const {
  if (error == EPIPE) throw ReaderGone();
  throw hostFault(name_ + ": " + std::strerror(error));
}

}  // namespace orv::host
