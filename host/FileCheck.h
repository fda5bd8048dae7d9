// The host's own look at a file: what it is to the system, and why the module can't play it.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

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
// at positions, which a pipe doesn't have.
FileIdentity checkReadable(const std::string& file);

// Throws Failure if one of them can't be read.
bool holdSameBytes(const std::string& a, const std::string& b);

// What is wrong with the first bytes of a file, as far as they were read; empty if they are an FLV header.
std::string explainHeader(const std::vector<u8>& head);

// Why the module refused `file`, in a few words, from the bytes at its front. Never empty.
std::string explainRefusal(const std::string& file);

// Why a file that opened has nothing to play; `firstTag` is where the module found that tags start.
std::string explainNothingPlayable(const std::string& file, i64 firstTag);

}  // namespace orv::host
