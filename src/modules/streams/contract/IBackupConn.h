// A second destination of a recording, supplied by the host.

#pragma once

#include "util/KTObject.h"

class KTString;

namespace orv {

// Receives every physical file operation of a recording stream, in order and on the thread that does it.
// Files are named by their full path in UTF-8. `flags`, `mode` are those of IFileService::open; `whence` is 0
// from the start, 2 from the end of the connection's own copy. Every result is ignored. A write comes whole,
// even where the host's own fell short. After a late attachment, seek and write arrive for a name that has
// been closed: a connection must accept that. It must not throw. The stream holds one count on it.
class IBackupConn : public KTObject {
 public:
  virtual int open(const KTString& name, int flags, int mode) = 0;
  virtual int close(const KTString& name) = 0;
  virtual int write(const KTString& name, const void* data, u32 size) = 0;
  virtual int seek(const KTString& name, i64 offset, int whence) = 0;
  virtual int unlink(const KTString& name) = 0;
};

class IBackupConnPtr : public KTPtr<IBackupConn> {
 public:
  using KTPtr<IBackupConn>::KTPtr;
};

}  // namespace orv
