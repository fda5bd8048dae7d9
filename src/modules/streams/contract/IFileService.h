// The host's file service: the module's only way to the disk.
//
// Paths are UTF-8 with backslashes as separators. A descriptor is an int, -1 meaning none; 0 must never be
// handed out, since searches take it for none. Every operation is positional or names its file, so a service
// needs no cursor; but a connection that is attached late gets a copy which the module reads by the
// descriptor itself, from where it stands. So descriptors must be the platform's own, and stand at the start
// when they are opened. One service serves all streams, is called from any thread and must not throw.
// `reserved` is always 0.

#pragma once

#include <cstddef>

#include "platform/Types.h"

// What stat and fstat fill in. The module reads the size in bytes and the low 32 bits of the modification
// time; that time must differ after every change of the file, since all refresh rests on it. Its unit is the
// host's.
struct FileStat {
  orv::u8 reserved1[24];
  orv::i64 size;
  orv::u8 reserved2[8];
  orv::i64 modificationTime;
  orv::u8 reserved3[8];
};
static_assert(sizeof(FileStat) == 56 && offsetof(FileStat, size) == 24 &&
              offsetof(FileStat, modificationTime) == 40);

// The flags and modes that the module passes to open. They are numbers of this contract, not of any platform.
namespace orv::openflags {
inline constexpr int readOnly = 0x8000;
inline constexpr int readWrite = 0x8002;       // the file must exist
inline constexpr int createTruncate = 0x8302;  // read and write, created or cut to nothing
inline constexpr int ownerReadWrite = 0x180;   // permission mode
}  // namespace orv::openflags

class IFileService {
 public:
  // Returns a descriptor; -1 on failure.
  virtual int open(const char* path, int flags, int mode, int reserved) = 0;
  virtual int close(int fd, int reserved) = 0;
  // Returns the number of bytes read, perhaps fewer than asked; below 1, with `data` untouched, at the end of
  // the file or on failure.
  virtual int read(int fd, orv::i64 position, void* data, orv::u32 size) = 0;
  // Returns the number of bytes written, perhaps fewer than asked; below 1 on failure.
  virtual int write(int fd, orv::i64 position, const void* data, orv::u32 size) = 0;
  // Return 0 on success. The results of close and mkdir are ignored.
  virtual int fstat(int fd, FileStat* record, int reserved) = 0;
  virtual int stat(const char* path, FileStat* record, int reserved) = 0;
  virtual int unlink(const char* path, int reserved) = 0;
  virtual void mkdir(const char* path) = 0;

 protected:
  ~IFileService() = default;
};
