#include "host/files/OutputFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <utility>

#include "host/text/Console.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

constexpr std::size_t kBufferSize = 256 * 1024;
constexpr mode_t kMode = 0666;  // The user's mask takes its share.
constexpr mode_t kModeBits = 07777;

std::string withLinksFollowed(const std::string& name) {
  std::error_code error;
  const auto path = std::filesystem::canonical(name, error);
  return error ? name : path.native();
}

std::string folderOf(const std::string& name) {
  const std::string folder = std::filesystem::path(name).parent_path();
  return folder.empty() ? "." : folder;
}

// Gives an open file without a name this one. Returns false on failure; what bears the name stays.
bool giveName(int fd, const std::string& name) {
  const std::string self = fmt::format("/proc/self/fd/{}", fd);
  return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

bool isProcMounted() {
  return ::access("/proc/self/fd", X_OK) == 0;
}

}  // namespace

OutputFile::OutputFile(const std::string& name, Existing existing, const FileIdentity& input,
                       Appearance appearance)
    : name_(name == "-" ? "standard output" : withLinksFollowed(name)) {
  if (name == "-") {
    openStandardOutput(input);
  } else {
    openNamed(existing, input, appearance);
  }
  buffer_.reserve(kBufferSize);
}

void OutputFile::openStandardOutput(const FileIdentity& input) {
  const int data = dataDescriptor();
  if (isatty(data)) throw hostFault("media is not written to a terminal; give a file or a pipe");
  file_ = Descriptor::duplicate(data);
  const auto status = file_.status();
  if (!status) fail(errno);
  if (input.isSame({status->st_dev, status->st_ino, 0})) refuse("is the input file itself");
}

// Nothing is touched before it is known what it is.
void OutputFile::openNamed(Existing existing, const FileIdentity& input, Appearance appearance) {
  struct stat status {};
  const bool isThere = ::stat(name_.c_str(), &status) == 0;
  if (!isThere && errno != ENOENT) fail(errno);
  if (isThere && !S_ISREG(status.st_mode)) {
    file_ = Descriptor(::open(name_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));  // Waits for a pipe's reader.
    if (!file_) fail(errno);
    return;
  }
  isFile_ = true;
  if (isThere) admitOld(status, existing, input);
  if (appearance == Appearance::growing) return openGrowing();
  isWhole_ = true;
  openUnnamed();
  if (!file_) openUnderOtherName();
  if (!file_) fail(errno);
  if (isThere) ::fchmod(file_.get(), status.st_mode & kModeBits);
}

void OutputFile::admitOld(const struct stat& status, Existing existing, const FileIdentity& input) {
  if (input.isSame({status.st_dev, status.st_ino, 0})) refuse("is the input file itself");
  if (existing == Existing::refuse) refuse("exists; --force replaces it");
  old_ = Descriptor::open(name_, O_WRONLY);
  if (!old_) fail(errno);
  if (!old_.lock()) refuse("is being written by another flvhost");
}

void OutputFile::openGrowing() {
  if (old_) {
    file_ = Descriptor::duplicate(old_.get());
    if (!file_ || ::ftruncate(file_.get(), 0) != 0) fail(errno);
    return;
  }
  file_ = Descriptor::open(name_, O_WRONLY | O_CREAT | O_EXCL, kMode);
  if (!file_) fail(errno);
  if (!file_.lock()) refuse("is being written by another flvhost");
}

void OutputFile::openUnnamed() {
  if (isProcMounted()) file_ = Descriptor::open(folderOf(name_), O_WRONLY | O_TMPFILE, kMode);
}

void OutputFile::openUnderOtherName() {
  otherName_ = freeName();
  file_ = Descriptor::open(otherName_, O_WRONLY | O_CREAT | O_EXCL, kMode);
  if (!file_) otherName_.clear();
}

// Nobody makes the same one: it is made from random numbers.
std::string OutputFile::freeName() const {
  std::random_device random;
  const std::filesystem::path path(name_);
  return (path.parent_path() / fmt::format(".{}.{:08x}", path.filename().native(), random())).native();
}

OutputFile::~OutputFile() {
  if (!otherName_.empty()) ::unlink(otherName_.c_str());
}

void OutputFile::write(const void* data, std::size_t size) {
  const auto* const bytes = static_cast<const u8*>(data);
  if (size > kBufferSize - buffer_.size()) flush();
  if (size <= kBufferSize) {
    buffer_.insert(buffer_.end(), bytes, bytes + size);
  } else if (const int error = writeNext(file_.get(), data, size).error) {
    fail(error);
  }
}

void OutputFile::flush() {
  const int error = writeNext(file_.get(), buffer_.data(), buffer_.size()).error;
  buffer_.clear();
  if (error) fail(error);
}

void OutputFile::patch(i64 position, const void* data, std::size_t size) {
  flush();
  if (const int error = writeAt(file_.get(), position, data, size).error) fail(error);
}

void OutputFile::close() {
  flush();
  if (isWhole_) publish();
  if (!file_.close()) fail(errno);
}

// Renaming replaces at one stroke, and a link never replaces: what appeared under the name since the start
// stays.
void OutputFile::publish() {
  if (!old_ && otherName_.empty()) {
    if (!giveName(file_.get(), name_)) fail(errno);
    return;
  }
  if (otherName_.empty()) {
    const std::string name = freeName();
    if (!giveName(file_.get(), name)) fail(errno);
    otherName_ = name;
  }
  const unsigned int flags = old_ ? 0 : RENAME_NOREPLACE;
  if (::renameat2(AT_FDCWD, otherName_.c_str(), AT_FDCWD, name_.c_str(), flags) != 0) fail(errno);
  otherName_.clear();
}

void OutputFile::fail(int error) const {
  if (error == EPIPE) throw ReaderGone();
  throw hostFault(name_ + ": " + std::strerror(error));
}

void OutputFile::refuse(const char* why) const {
  throw hostFault(name_ + ": " + why);
}

}  // namespace orv::host
