// The host's own plain look into a file, beside the module's.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/files/Descriptor.h"

namespace orv::host {

class RemoteFile;

// A local file, or an object on a web server as it was when it was opened.
class ReadOnlyFile {
 public:
  // Throws Failure for an object that can't be read.
  explicit ReadOnlyFile(const std::string& name);

  // False if a local file couldn't be opened; errno then says why.
  bool isOpen() const { return file_ || remote_; }
  const Descriptor& file() const { return file_; }  // Empty for an object.

  // Returns the bytes read: fewer than `size` at the end of the file or where it can't be read. Throws
  // Failure for an object that can't be read, or has changed since it was opened.
  std::size_t read(i64 position, u8* out, std::size_t size) const;
  std::vector<u8> read(i64 position, std::size_t size) const {
    std::vector<u8> bytes(size);
    bytes.resize(read(position, bytes.data(), size));
    return bytes;
  }

 private:
  Descriptor file_;
  std::shared_ptr<RemoteFile> remote_;  // Null for a local file.
  u32 stamp_ = 0;
};

}  // namespace orv::host
