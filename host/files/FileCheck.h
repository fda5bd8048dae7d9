// What a file is to the system.

#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/Types.h"

namespace orv::host {

// A file's identity and size; two names of one file agree in the first two.
struct FileIdentity {
  dev_t device;
  ino_t inode;
  i64 size;
  bool isSame(const FileIdentity& other) const { return device == other.device && inode == other.inode; }
};

// Throws Failure with the system's reason if `file` can't be read, or isn't a regular file: the module reads
// at positions, which a pipe doesn't have. An object on a web server is like no local file.
FileIdentity checkReadable(const std::string& file);

// The same of what `name` is now; none if it is gone.
std::optional<FileIdentity> lookUp(const std::string& name);

// Throws Failure if one of them can't be read.
bool holdSameBytes(const std::string& a, const std::string& b);

}  // namespace orv::host
