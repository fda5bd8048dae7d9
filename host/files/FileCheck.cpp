#include "host/files/FileCheck.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "host/files/ModulePath.h"
#include "host/files/ReadOnlyFile.h"
#include "host/files/RemoteFile.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

// The device number that no file has.
FileIdentity remoteIdentity(RemoteFile& file) {
  return {static_cast<dev_t>(-1), 0, file.look().size};
}

}  // namespace

std::optional<FileIdentity> lookUp(const std::string& name) {
  if (isRemote(name)) {
    const auto file = RemoteFiles::shared().find(name);
    try {
      return remoteIdentity(*file);
    } catch (const HttpFault& fault) {
      if (fault.isGone()) return std::nullopt;
      throw remoteFailure(*file, fault.what());
    }
  }
  struct stat status {};
  if (::stat(name.c_str(), &status) != 0) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino, status.st_size};
}

FileIdentity checkReadable(const std::string& name) {
  if (isRemote(name)) {
    if (const auto remote = lookUp(name)) return *remote;
    throw hostFault(shownAddress(name) + ": the server has no such object");
  }
  const ReadOnlyFile file(name);
  const auto status = file.file() ? file.file().status() : std::nullopt;
  if (!status) throw hostFault(name + ": " + std::strerror(errno));
  if (S_ISDIR(status->st_mode)) throw hostFault(name + ": is a directory");
  if (!S_ISREG(status->st_mode)) {
    throw hostFault(name + ": is not a regular file, so it cannot be read at any position");
  }
  return {status->st_dev, status->st_ino, status->st_size};
}

bool holdSameBytes(const std::string& a, const std::string& b) {
  constexpr i64 kBlock = 1 << 20;
  const i64 size = checkReadable(a).size;
  if (checkReadable(b).size != size) return false;
  const ReadOnlyFile first(a), second(b);
  for (i64 at = 0; at < size; at += kBlock) {
    const auto wanted = static_cast<std::size_t>(std::min(size - at, kBlock));
    const std::vector<u8> block = first.read(at, wanted);
    if (block.size() != wanted || block != second.read(at, wanted)) return false;
  }
  return true;
}

}  // namespace orv::host
