#include "host/module/RecordTarget.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

#include "host/files/ModulePath.h"
#include "host/files/ReadOnlyFile.h"
#include "host/flv/FileFault.h"
#include "host/text/Console.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

// The module copies what is there in one block, whose size has 32 bits.
constexpr i64 kMostToCopy = 0xFFFFFFFF;
constexpr mode_t kMode = 0666;  // The user's mask takes its share.

// None if there is no such file. Throws Failure for anything but a regular file.
std::optional<FileIdentity> lookAt(const std::string& name) {
  struct stat status {};
  if (::stat(name.c_str(), &status) != 0) {
    if (errno == ENOENT) return std::nullopt;
    throw hostFault(name + ": " + std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) throw hostFault(name + ": is not a regular file");
  return FileIdentity{status.st_dev, status.st_ino, status.st_size};
}

std::string canonical(const std::string& name) {
  std::error_code error;
  const auto path = std::filesystem::weakly_canonical(std::filesystem::absolute(name, error), error);
  return error ? name : path.native();
}

bool looksLikeFlv(const std::string& name) {
  std::vector<u8> head(flv::kFileHeaderSize);
  head.resize(ReadOnlyFile(name).read(0, head.data(), head.size()));
  return explainHeader(head).empty();
}

}  // namespace

RecordTarget::RecordTarget(std::string file, std::string copy, Onto onto)
    : file_(std::move(file)), copy_(std::move(copy)), onto_(onto) {
  toModulePath(file_);  // Throws for a name that can't be given to the module.
  admitFile();
  if (!copy_.empty()) admitCopy();
}

void RecordTarget::admitFile() {
  const auto found = lookAt(file_);
  exists_ = found.has_value();
  size_ = found ? found->size : 0;
  if (exists_ && onto_ == Onto::newFile) {
    throw hostFault(file_ + ": exists; --append adds to it, --overwrite replaces it");
  }
  if (exists_) lock_ = lock(file_, O_RDWR);
}

void RecordTarget::admitCopy() {
  if (canonical(file_) == canonical(copy_)) throw hostFault(copy_ + ": is the recorded file itself");
  const std::string folder = std::filesystem::path(canonical(copy_)).parent_path();
  if (::access(folder.c_str(), W_OK | X_OK) != 0) throw hostFault(copy_ + ": " + std::strerror(errno));
  if (const auto found = lookAt(copy_)) admitExistingCopy(*found);
  if (appends() && !copyIsEqual_ && size_ > kMostToCopy) {
    throw hostFault(
        fmt::format("{}: holds 4 GiB or more; copy it to {} yourself, then append", file_, copy_));
  }
}

void RecordTarget::admitExistingCopy(const FileIdentity& identity) {
  if (exists_ && identity.isSame(*lookAt(file_))) throw hostFault(copy_ + ": is the recorded file itself");
  copyLock_ = lock(copy_, O_RDWR);
  if (identity.size == 0) return;
  if (onto_ == Onto::newFile) throw hostFault(copy_ + ": is not empty; --overwrite replaces it");
  if (onto_ == Onto::overwrite) {
    if (!looksLikeFlv(copy_)) throw hostFault(copy_ + ": is not an FLV file; --overwrite leaves it alone");
    return;
  }
  copyIsEqual_ = appends() && holdSameBytes(file_, copy_);
  if (!copyIsEqual_) {
    throw hostFault(fmt::format("{}: differs from {}; remove it to have it made anew", copy_, file_));
  }
}

// Two recordings into one file would tear each other's tags. Where the file system has no locks, nothing is
// locked.
Descriptor RecordTarget::lock(const std::string& name, int flags) {
  Descriptor file = Descriptor::open(name, flags, kMode);
  if (!file) throw hostFault(name + ": " + std::strerror(errno));
  if (!file.lock()) throw hostFault(name + ": is being recorded by another flvhost");
  return file;
}

// Before the module opens the copy, and perhaps empties it.
void RecordTarget::lockNewCopy() {
  if (copy_.empty() || copyLock_) return;
  copyLock_ = lock(copy_, O_RDWR | O_CREAT);
  const auto status = copyLock_.status();
  if (status && status->st_size > 0) throw hostFault(copy_ + ": is not empty; --overwrite replaces it");
}

void RecordTarget::eraseOld(Session& session) {
  RecordStream old = session.openForRecording(file_, nullptr);
  if (!old.erase()) throw hostFault(file_ + ": cannot be erased: " + std::strerror(errno));
}

void RecordTarget::makeMirror() {
  if (copy_.empty()) return;
  mirror_ = new MirrorFile({moduleFileName(toModulePath(file_)), file_, copy_}, report);
}

RecordStream RecordTarget::open(Session& session) {
  lockNewCopy();
  if (exists_ && onto_ == Onto::overwrite) {
    eraseOld(session);
    lock_.close();
  }
  makeMirror();
  return openLocked(session);
}

RecordStream RecordTarget::openLocked(Session& session) {
  const bool isLate = appends() && !copyIsEqual_;
  RecordStream stream = session.openForRecording(file_, isLate ? nullptr : mirror_.get());
  if (!lock_) lock_ = lock(file_, O_RDWR);
  if (isLate && mirror_) catchUp(stream);
  return stream;
}

bool RecordTarget::wasMoved() const {
  struct stat named {};
  const auto locked = lock_.status();
  if (!locked) return false;
  return ::stat(file_.c_str(), &named) != 0 || named.st_dev != locked->st_dev ||
         named.st_ino != locked->st_ino;
}

std::string RecordTarget::presentName() const {
  if (!wasMoved()) return file_;
  std::error_code error;
  const auto path = std::filesystem::read_symlink(fmt::format("/proc/self/fd/{}", lock_.get()), error);
  const auto open = lock_.status();
  const auto named = error ? std::nullopt : lookUp(path.native());
  return named && open && named->isSame({open->st_dev, open->st_ino, 0}) ? path.native() : "";
}

RecordStream RecordTarget::reopen(Session& session) {
  lock_.close();
  copyLock_.close();
  exists_ = false;
  size_ = 0;
  const auto found = lookAt(file_);
  if (found && found->size > flv::kFirstTagPosition) {
    throw hostFault(file_ + ": was replaced by another file; recording ends here");
  }
  RecordStream stream = openLocked(session);
  if (!copy_.empty() && !mirror_->isBehind()) copyLock_ = lock(copy_, O_RDWR);
  return stream;
}

// The module sends what the file holds, unless it can't have it in one piece, and reports neither.
void RecordTarget::catchUp(RecordStream& stream) {
  stream.attach(mirror_.get());
  const auto copied = lookAt(copy_);
  if (!copied || copied->size != size_) {
    throw hostFault(fmt::format("{}: cannot be made equal to {}; nothing is recorded", copy_, file_));
  }
}

}  // namespace orv::host
