// Where a subcommand writes media: a new file, or a pipe.

#pragma once

#include <string>
#include <vector>

#include "FileCheck.h"

namespace orv::host {

enum class Existing { refuse, replace };

// Buffered. Errors throw Failure; a reader of a pipe that went away throws ReaderGone.
class OutputFile {
 public:
  // `name` "-" is standard output. A file that exists is refused, or emptied, as `existing` says; one that is
  // also `input` is always refused, under whatever name.
  OutputFile(const std::string& name, Existing existing, const FileIdentity& input);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  // What goes to a pipe can't be mended later, as a file's bytes can.
  bool isFile() const { return isFile_; }
  void write(const void* data, std::size_t size);
  void patch(i64 position, u8 byte);  // For a file alone.
  void flush();                       // What is buffered goes out.
  int fd() const { return fd_; }      // To wait for its reader.
  // To be called at the end: what is buffered goes out, and a late error of the disk shows.
  void close();

 private:
  int openNew(Existing existing, const FileIdentity& input);
  void writeOut(const u8* data, std::size_t size);
  [[noreturn]] void fail(int error) const;

  const std::string name_;
  int fd_ = -1;
  bool isFile_ = false;
  std::vector<u8> buffer_;
};

}  // namespace orv::host
