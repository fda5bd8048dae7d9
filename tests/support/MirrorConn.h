// A backup connection that keeps each file's copy in memory, and a line of text for each call.

#pragma once

#include <functional>
#include <map>
#include <string>

#include "modules/streams/contract/IBackupConn.h"
#include "modules/streams/contract/IFileService.h"
#include "support/FileImage.h"
#include "util/KTString.h"

namespace orv::test {

// Counted: make it with new and hold it by a KTPtr.
class MirrorConn final : public IBackupConn {
 public:
  // Gets a line of each call: "open 33538 384", "seek 13 0", "write 4".
  using Sink = std::function<void(const std::string& line)>;
  explicit MirrorConn(Sink sink = {}) : sink_(std::move(sink)) {}

  std::map<std::string, FileImage> files;  // By the name that the module gives.
  int answer = 0;                          // To every call.

  int open(const KTString& name, int flags, int mode) override {
    if (flags == openflags::createTruncate) files[name.c_str()].resize(0);
    cursors_[name.c_str()] = 0;
    return tell("open", flags, mode);
  }
  int close(const KTString&) override { return tell("close"); }
  int write(const KTString& name, const void* data, u32 size) override {
    files[name.c_str()].write(cursors_[name.c_str()], data, size);
    cursors_[name.c_str()] += size;
    return tell("write", size);
  }
  int seek(const KTString& name, i64 offset, int whence) override {
    cursors_[name.c_str()] = offset + (whence == 2 ? files[name.c_str()].size() : 0);
    return tell("seek", offset, whence);
  }
  int unlink(const KTString& name) override {
    files.erase(name.c_str());
    return tell("unlink");
  }

 private:
  template <class... Numbers>
  int tell(std::string line, Numbers... numbers) {
    ((line += ' ' + std::to_string(numbers)), ...);
    if (sink_) sink_(line);
    return answer;
  }

  Sink sink_;
  std::map<std::string, i64> cursors_;
};

}  // namespace orv::test
