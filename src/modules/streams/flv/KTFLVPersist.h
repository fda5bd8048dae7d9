// The writing side of one FLV file.

#pragma once

#include "modules/streams/contract/IBackupConn.h"
#include "modules/streams/contract/IFileService.h"
#include "util/KTWideString.h"

namespace orv::flv {

// Where a position given to `seek` counts from.
enum Whence : int { fromStart = 0, fromEnd = 2 };

// Opens the file for writing, creating it and its directory when needed, writes at an explicit position,
// closes and unlinks it, and repeats each of these steps on the backup connection, whose answers it ignores.
// Borrows the file service. Throws nothing of its own, logs nothing and has no lock: callers hold the
// stream's.
class KTFLVPersist {
 public:
  // `path` is the full path, suffix included. Opens nothing.
  KTFLVPersist(const KTWideString& path, const IBackupConnPtr& conn, IFileService* service);
  KTFLVPersist(const KTFLVPersist&) = delete;
  KTFLVPersist& operator=(const KTFLVPersist&) = delete;
  virtual ~KTFLVPersist();

  // Opens an existing file as it is and creates a missing one. True when the file is open.
  virtual bool open();
  virtual bool close();  // Always true; closing twice is harmless.
  // Writes at the write position, which moves by what was written. Returns that number, as the host gives it;
  // -1 when closed. The connection gets all of `data` unless nothing was written.
  virtual i64 write(const void* data, u32 size);
  // Sets the write position; `whence` is a Whence. Returns the new position, or -1, which the write position
  // then is too. The connection gets the arguments as they are.
  virtual i64 seek(i64 offset, int whence);
  virtual bool unlink();   // Deletes the file; an open descriptor stays open.
  virtual int fd() const;  // -1 when closed.

  // Attaches a connection, once and for good, and sends it a copy of what the file holds by now. An open file
  // is closed for that and opened again, which may fail. Null, and a second connection, change nothing.
  void setBackupConn(const IBackupConnPtr& conn);

 protected:
  const KTString& narrowPath() const { return filePathNarrow_; }
  // The reading side uses it too: a host that has several in one process may drop one while streams of
  // another live.
  IFileService* fileService() const { return fileService_; }

 private:
  void sendCopy(const KTString& name, int fd);

  KTWideString filePath_;
  KTString filePathNarrow_;
  int fd_ = -1;
  IBackupConnPtr backupConn_;
  IFileService* fileService_;
  i64 writePosition_ = 0;
};

}  // namespace orv::flv
