// Files and directories by their native names: UTF-8, slashes. False and -1 stand for a failure, whose reason
// lastErrorCode() gives.

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

// Symbolic links are followed.
bool fileState(const char* path, FileState* state);
// `mode` adds up 4 to read, 2 to write and 1 to execute; 0 asks whether there is such a name.
bool mayAccess(const char* path, int mode);

bool makeDirectory(const char* path);
bool removeDirectory(const char* path);
bool removeFile(const char* path);
// Replaces a file that has the new name already.
bool renameFile(const char* from, const char* to);
bool copyFile(const char* from, const char* to);

// Removes a directory with all that is in it, to any depth, and goes on where something can't be removed;
// true when the directory is gone. Symbolic links are removed, never followed, `path` itself included.
// Refuses "/" and paths that end in "." or "..".
bool removeTree(std::string path);

// The path of the program that this process runs.
bool executablePath(std::string* path);

}  // namespace orv::platform
