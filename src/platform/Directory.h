// Files and directories by their native names: UTF-8, slashes. Every function returns false on failure;
// lastErrorCode() returns the reason.

#pragma once

#include <string>

#include "platform/Types.h"

namespace orv::platform {

struct FileState {
  i64 size = 0;
  i64 modified = 0;  // Seconds since 1970.
  bool isDirectory = false;
  bool readable = false;  // By its permissions, for anybody at all.
  bool writable = false;
};

// Follows symbolic links.
bool fileState(const char* path, FileState* state);
// `mode` is the sum of 4 for reading, 2 for writing and 1 for executing; 0 asks whether the name exists.
bool mayAccess(const char* path, int mode);

bool makeDirectory(const char* path);
bool removeDirectory(const char* path);
bool removeFile(const char* path);
// Replaces a file that already has the new name.
bool renameFile(const char* from, const char* to);
bool copyFile(const char* from, const char* to);

// Removes a directory with all its content, to any depth, and goes on where something can't be removed.
// Returns true when the directory is gone. Symbolic links are removed, never followed, `path` itself
// included. Refuses "/" and paths that end in "." or "..".
bool removeTree(std::string path);

// Finds the path of the program that this process runs.
bool executablePath(std::string* path);

}  // namespace orv::platform
