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

// `whence` is 0 from the start, 1 from the position, 2 from the end. The new position, or -1.
i64 seek64(int fd, i64 offset, int whence);

// Writes one zero byte at `offset`, so that the file is at least one byte longer. The offset, or -1.
i64 extendTo(int fd, i64 offset);

// Whether the file may have holes. Every regular file here may, and needs no mark for it.
bool setSparse(int fd);

// A new file in the directory for temporary files, which goes when it is closed; -1 on failure.
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
// 0 or -1, with `*state` untouched.
int stat(const KTWideString& path, orv::platform::FileState* state);
// 0 or -1. `mode` adds up 4 to read and 2 to write; 0 asks whether there is such a name.
int access(const KTWideString& path, int mode);

// Whether the path, with or without a last backslash, is a directory; where its state can't be read, whether
// it is there at all.
bool isDirectory(const KTWideString& path);
// Whether there is such a file, and its permissions let somebody read it and nobody write it.
bool isReadOnly(const KTWideString& path);

// Removes a directory with all that is in it, to any depth; true when the directory is gone. What can't be
// removed is passed over. Links are removed, what they point to stays. The root, "." and ".." are refused.
bool removeTree(const KTWideString& path);

// Makes the directories that lead to a file: all of the path up to its last separator. False on a failure.
bool createDirectories(const KTWideString& path);

}  // namespace orv::util::files
