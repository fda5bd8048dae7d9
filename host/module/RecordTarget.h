// Where a recording goes: what may be written to is settled before the first byte is.

#pragma once

#include <string>

#include "host/files/Descriptor.h"
#include "host/files/FileCheck.h"
#include "host/files/MirrorFile.h"
#include "host/module/Session.h"

namespace orv::host {

// What a recording may do to a file that is there already.
enum class Onto { newFile, append, overwrite };

// Locks what it found from the start, and all that it makes, against every other flvhost.
class RecordTarget {
 public:
  // `copy` may be empty. Throws Failure, with nothing touched, if
  //   - the file is there, and `onto` is newFile;
  //   - the copy holds bytes, and `onto` neither allows for that nor is it equal to the file appended to;
  //   - one of them isn't a regular file, they are one file, or a copy of what is there can't be made;
  //   - another flvhost writes one of them.
  RecordTarget(std::string file, std::string copy, Onto onto);
  RecordTarget(const RecordTarget&) = delete;
  RecordTarget& operator=(const RecordTarget&) = delete;

  // Erases what is to be overwritten, through the module; opens the file; makes a mirror of it in `copy`.
  // Throws Failure.
  RecordStream open(Session& session);
  // Whether the file was moved away since it was opened, as log rotation does it.
  bool wasMoved() const;
  // The file that is open, for looks at it.
  const Descriptor& descriptor() const { return lock_; }
  // What it is called by now; empty if it was removed.
  std::string presentName() const;
  // Opens a new file of the old name after a move. The mirror has moved the old copy aside.
  RecordStream reopen(Session& session);

  const std::string& file() const { return file_; }
  const std::string& copy() const { return copy_; }
  // Whether opening touches bytes that were there before.
  bool holdsBytes() const { return onto_ != Onto::newFile && size_ > 0; }
  // Whether they stay.
  bool appends() const { return onto_ == Onto::append && size_ > 0; }
  // Null without a copy, and before open().
  const MirrorFile* mirror() const { return mirror_.get(); }

 private:
  void admitFile();
  void admitCopy();
  void admitExistingCopy(const FileIdentity& identity);
  void eraseOld(Session& session);
  static Descriptor lock(const std::string& name, int flags);
  void lockNewCopy();
  RecordStream openLocked(Session& session);
  void makeMirror();
  void catchUp(RecordStream& stream);

  const std::string file_;
  const std::string copy_;
  const Onto onto_;
  bool exists_ = false;
  i64 size_ = 0;  // Of the file, before.
  bool copyIsEqual_ = false;
  Descriptor lock_;
  Descriptor copyLock_;
  KTPtr<MirrorFile> mirror_;
};

}  // namespace orv::host
