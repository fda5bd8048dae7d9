// Where a subcommand writes media: a new file, or a pipe.

#pragma once

#include <string>
#include <vector>

#include "host/files/Descriptor.h"
#include "host/files/FileCheck.h"

namespace orv::host {

enum class Existing { refuse, replace };
// When a reader sees the file: once it is whole, under its name at one stroke; or as it grows.
enum class Appearance { whole, growing };

// Buffered. Errors throw Failure; a reader of a pipe that went away throws ReaderGone.
//
// A file that appears whole is written without a name in its folder and gets the name at close(). Whatever
// ends the program before that leaves what stood there before, and nothing else. Where the file system knows
// no files without a name, it bears one of its own until then: a leading point and a random ending.
class OutputFile {
 public:
  // `name` "-" is standard output; a pipe or a device is written as it is. A file that exists is refused, or
  // replaced, as `existing` says, and keeps its mode; one that another flvhost writes, and one that is also
  // `input`, are always refused, the latter under whatever name.
  OutputFile(const std::string& name, Existing existing, const FileIdentity& input,
             Appearance appearance = Appearance::whole);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  // What goes to a pipe can't be mended later, as a file's bytes can.
  bool isFile() const { return isFile_; }
  void write(const void* data, std::size_t size);
  void patch(i64 position, const void* data, std::size_t size);  // For a file alone.
  void flush();                                                  // What is buffered goes out.
  int fd() const { return file_.get(); }                         // To wait for its reader.
  // To be called at the end: what is buffered goes out, the file gets its name, and a late error of the disk
  // shows.
  void close();

 private:
  void openStandardOutput(const FileIdentity& input);
  void openNamed(Existing existing, const FileIdentity& input, Appearance appearance);
  void admitOld(const struct stat& status, Existing existing, const FileIdentity& input);
  void openGrowing();
  void openUnnamed();
  void openUnderOtherName();
  void publish();
  std::string freeName() const;
  [[noreturn]] void fail(int error) const;
  [[noreturn]] void refuse(const char* why) const;

  std::string name_;  // With links followed.
  Descriptor file_;
  Descriptor old_;         // What is replaced, locked until it is.
  bool isFile_ = false;    // A regular file.
  bool isWhole_ = false;   // It has yet to get its name.
  std::string otherName_;  // Its name until then; empty: none.
  std::vector<u8> buffer_;
};

}  // namespace orv::host
