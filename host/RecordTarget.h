// Where a recording goes: what may be written to is settled before the first byte is.

#pragma once

#include <string>

#include "FileCheck.h"
#include "MirrorFile.h"
#include "Session.h"

namespace orv::host {

// What a recording may do to a file that is there already.
enum class Onto { newFile, append, overwrite };

class RecordTarget {
 public:
  // `copy` may be empty. Throws Failure, with nothing touched, if
  //   - the file is there, and `onto` is newFile;
  //   - the copy holds bytes, and `onto` neither allows for that nor is it equal to the file appended to;
  //   - one of them isn't a regular file, they are one file, or a copy of what is there can't be made.
  RecordTarget(std::string file, std::string copy, Onto onto);
  RecordTarget(const RecordTarget&) = delete;
  RecordTarget& operator=(const RecordTarget&) = delete;
  ~RecordTarget();

  // Erases what is to be overwritten, through the module; opens the file; makes a mirror of it in `copy`.
  // Throws Failure, also if another flvhost records into the file.
  RecordStream open(Session& session);

  const std::string& file() const { return file_; }
  const std::string& copy() const { return copy_; }
  // Whether the file was there before, with bytes that stay.
  bool appends() const { return onto_ == Onto::append && size_ > 0; }
  // Null without a copy, and before open().
  const MirrorFile* mirror() const { return mirror_.get(); }

 private:
  void admitFile();
  void admitCopy();
  void admitExistingCopy(const FileIdentity& identity);
  void eraseOld(Session& session);
  void lock();
  void unlock();
  void makeMirror();
  void catchUp(RecordStream& stream);
  void tellTornEnd(const RecordStream& stream) const;

  const std::string file_;
  const std::string copy_;
  const Onto onto_;
  bool exists_ = false;
  i64 size_ = 0;  // Of the file, before.
  bool copyIsEqual_ = false;
  int lock_ = -1;  // A descriptor.
  KTPtr<MirrorFile> mirror_;
};

}  // namespace orv::host
