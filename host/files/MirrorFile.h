// The second place of a recording: a plain file that takes each write that the first one took.

#pragma once

#include <functional>
#include <string>

#include "host/files/Descriptor.h"
#include "modules/streams/contract/IBackupConn.h"
#include "util/KTString.h"

namespace orv::host {

// Serves one file. After each flush the copy is equal to it byte for byte, unless a write to the copy failed:
// that is reported once and the copy stays as it is, whole up to that write, since what comes later would
// leave a hole in it. When the recording begins
// a new file, because its first one was moved away, the copy of that goes to the first free name of "COPY.1",
// "COPY.2" and so on. Used by one stream, under that stream's lock. Counted: make it with new.
class MirrorFile final : public IBackupConn {
 public:
  using FaultSink = std::function<void(const std::string& line)>;
  struct Names {
    std::string module;  // The recorded file's, as the module calls it.
    std::string source;  // The same natively.
    std::string copy;    // Native.
  };

  MirrorFile(Names names, FaultSink onFault) : names_(std::move(names)), onFault_(std::move(onFault)) {}

  // The contract's. A name that was closed may still be written to. 0, or the bytes written, or -1.
  int open(const KTString& name, int flags, int mode) override;
  int close(const KTString& name) override;
  int write(const KTString& name, const void* data, u32 size) override;
  int seek(const KTString& name, i64 offset, int whence) override;
  int unlink(const KTString& name) override;

  bool isBehind() const { return behind_; }

 private:
  bool serves(const KTString& name) const { return !behind_ && names_.module == name.c_str(); }
  bool isOpen();
  bool isSourceItself() const;
  bool moveAside();
  int fail(const char* what, int error);

  const Names names_;
  const FaultSink onFault_;
  Descriptor file_;
  i64 cursor_ = 0;
  bool behind_ = false;
  bool hasBegun_ = false;
};

}  // namespace orv::host
