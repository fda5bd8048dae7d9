#include "RecordTarget.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

#include "Console.h"
#include "Failure.h"
#include "ModulePath.h"
#include "ReadOnlyFile.h"

namespace orv::host {

namespace {

// The module copies what is there in one block, whose size has 32 bits.
constexpr i64 kMostToCopy = 0xFFFFFFFF;

// None if there is no such file. Throws Failure for anything but a regular file.
std::optional<FileIdentity> lookAt(const std::string& name) {
  struct stat status {};
  if (::stat(name.c_str(), &status) != 0) {
    if (errno == ENOENT) return std::nullopt;
    throw hostFault(name + ": " + std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) throw hostFault(name + ": isn't a regular file");
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
  toModulePath(file_);  // Throws for a name that can't be told to the module.
  admitFile();
  if (!copy_.empty()) admitCopy();
}

RecordTarget::~RecordTarget() {
  unlock();
}

void RecordTarget::admitFile() {
  const auto found = lookAt(file_);
  exists_ = found.has_value();
  size_ = found ? found->size : 0;
  if (exists_ && onto_ == Onto::newFile) {
    throw hostFault(file_ + ": exists; --append goes on behind it, --overwrite erases it first");
  }
}

void RecordTarget::admitCopy() {
  if (canonical(file_) == canonical(copy_)) throw hostFault(copy_ + ": is the recorded file itself");
  const std::string folder = std::filesystem::path(canonical(copy_)).parent_path();
  if (::access(folder.c_str(), W_OK | X_OK) != 0) throw hostFault(copy_ + ": " + std::strerror(errno));
  if (const auto found = lookAt(copy_)) admitExistingCopy(*found);
  if (appends() && !copyIsEqual_ && size_ > kMostToCopy) {
    throw hostFault(fmt::format("{}: has 4 GiB or more; copy it to {} yourself, then go on", file_, copy_));
  }
}

void RecordTarget::admitExistingCopy(const FileIdentity& identity) {
  if (exists_ && identity.isSame(*lookAt(file_))) throw hostFault(copy_ + ": is the recorded file itself");
  if (identity.size == 0) return;
  if (onto_ == Onto::newFile) throw hostFault(copy_ + ": holds bytes; --overwrite replaces it");
  if (onto_ == Onto::overwrite) {
    if (!looksLikeFlv(copy_)) throw hostFault(copy_ + ": isn't an FLV file; it isn't overwritten");
    return;
  }
  copyIsEqual_ = appends() && holdSameBytes(file_, copy_);
  if (!copyIsEqual_) {
    throw hostFault(fmt::format("{}: isn't equal to {}; remove it, and it is made anew", copy_, file_));
  }
}

// Against another flvhost: two recordings into one file would tear each other's tags. Where the file system
// has no locks, nothing is locked.
void RecordTarget::lock() {
  lock_ = ::open(file_.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (lock_ < 0) throw hostFault(file_ + ": " + std::strerror(errno));
  if (::flock(lock_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    throw hostFault(file_ + ": is being recorded by another flvhost");
  }
}

void RecordTarget::unlock() {
  if (lock_ >= 0) ::close(std::exchange(lock_, -1));
}

void RecordTarget::eraseOld(Session& session) {
  RecordStream old = session.openForRecording(file_, nullptr);
  if (!old.erase()) throw hostFault(file_ + ": can't be erased: " + std::strerror(errno));
}

void RecordTarget::makeMirror() {
  if (copy_.empty()) return;
  mirror_ = new MirrorFile({moduleFileName(toModulePath(file_)), file_, copy_}, tell);
}

RecordStream RecordTarget::open(Session& session) {
  if (exists_) lock();
  if (exists_ && onto_ == Onto::overwrite) {
    eraseOld(session);
    unlock();
  }
  makeMirror();
  const bool isLate = appends() && !copyIsEqual_;
  RecordStream stream = session.openForRecording(file_, isLate ? nullptr : mirror_.get());
  if (lock_ < 0) lock();
  if (isLate && mirror_) catchUp(stream);
  tellTornEnd(stream);
  return stream;
}

// The module sends what the file holds, unless it can't have it in one piece, and tells nobody.
void RecordTarget::catchUp(RecordStream& stream) {
  stream.attach(mirror_.get());
  const auto copied = lookAt(copy_);
  if (!copied || copied->size != size_) {
    throw hostFault(fmt::format("{}: could not be made equal to {}; nothing is recorded", copy_, file_));
  }
}

// The module appends behind the file's last byte, and never cuts.
void RecordTarget::tellTornEnd(const RecordStream& stream) const {
  const i64 torn = appends() ? size_ - stream.size() : 0;
  if (torn <= 0) return;
  tell(fmt::format(
      "{}: its last {} bytes hold no whole tag that could be told; they stay, and players stumble over them "
      "(flvhost play -o makes a whole file of it)",
      file_, torn));
}

}  // namespace orv::host
