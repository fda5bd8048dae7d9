// A thin layer over the platform's file calls, for paths in wide text with backslashes (util/KTPathUtil.h). A
// failure of the platform's has its code in orv::platform::lastErrorCode(). Streams are in
// util/KTStreamUtil.h.

#pragma once

#include "platform/Directory.h"
#include "util/KTWideString.h"

namespace orv::util::files {

// Go on until `count` bytes have moved or a call moves none. The bytes moved, or -1 after an error.
i64 readAll(int fd, void* buffer, i64 count);
i64 writeAll(int fd, const void* buffer, i64 count);

// Moves the position; `whence` is 0 from the start, 1 from the position, 2 from the end. Returns the new
// position; -1 on failure.
i64 seek64(int fd, i64 offset, int whence);

// Writes one zero byte at `offset`, so that the file reaches at least that far. Returns the offset; -1 on
// failure.
i64 extendTo(int fd, i64 offset);

// Returns whether the file may have holes. Every regular file here may, and needs no mark for it.
bool setSparse(int fd);

// Opens a new file in the directory for temporary files; it is deleted when it is closed. Returns -1 on
// failure.
int openTempFile();

// Prints as printf does, cuts the text at 1,023 bytes and appends it with a line feed. Returns false if
// printing, opening or writing fails; a part of the line may be in the file then.
bool appendLine(const KTWideString& path, const char* format, ...) __attribute__((format(printf, 2, 3)));

int makeDirectory(const KTWideString& path);  // 0 or -1.
bool removeDirectory(const KTWideString& path);
bool deleteFile(const KTWideString& path);
// Each replaces a file that has the name already.
bool renameFile(const KTWideString& from, const KTWideString& to);
bool copyFile(const KTWideString& from, const KTWideString& to);
// Returns 0; -1, with `*state` untouched, on failure.
int stat(const KTWideString& path, orv::platform::FileState* state);
// Returns 0 if the path may be used as `mode` says, else -1. `mode` adds up 4 to read and 2 to write; 0 asks
// whether there is such a name.
int access(const KTWideString& path, int mode);

// Returns whether the path, with or without a last backslash, is a directory; where its state can't be read,
// whether it exists at all.
bool isDirectory(const KTWideString& path);
// Returns whether the file exists and its permissions let somebody read it and nobody write it.
bool isReadOnly(const KTWideString& path);

// Removes a directory with all that is in it, to any depth, as far as that can be removed. Removes links, not
// what they point to. Refuses the root, "." and "..". Returns true if the directory is gone.
bool removeTree(const KTWideString& path);

// Makes the directories that lead to a file: all of the path up to its last separator. Returns false on
// failure.
bool createDirectories(const KTWideString& path);

}  // namespace orv::util::files
