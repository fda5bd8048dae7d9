// The ByteSources of this machine.

#pragma once

#include <memory>

#include "host/files/ByteSource.h"
#include "host/files/FileCheck.h"
#include "host/files/ReadOnlyFile.h"

namespace orv::host {

// A regular file, or an object on a web server, as long as it was when it was opened.
class FileSource final : public ByteSource {
 public:
  // Throws Failure with the system's reason if `name` can't be read.
  explicit FileSource(const std::string& name);

  const std::string& name() const override { return name_; }
  i64 size() const override { return identity_.size; }
  bool isSeekable() const override { return static_cast<bool>(file_.file()); }  // Each jump is a request.
  std::size_t read(i64 position, u8* out, std::size_t size) override;
  const FileIdentity& identity() const { return identity_; }

 private:
  const std::string name_;
  const FileIdentity identity_;
  const ReadOnlyFile file_;
};

// Standard input, a pipe or whatever else it is.
class PipeSource final : public ByteSource {
 public:
  const std::string& name() const override { return name_; }
  i64 size() const override { return -1; }
  std::size_t read(i64 position, u8* out, std::size_t size) override;

 private:
  const std::string name_ = "standard input";
};

// `name`, or standard input for "-".
std::unique_ptr<ByteSource> openSource(const std::string& name);

}  // namespace orv::host
