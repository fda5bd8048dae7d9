// What can go wrong in the host, told apart by whose fault it is: the answer becomes the exit code.

#pragma once

#include <stdexcept>
#include <string>

namespace orv::host {

enum class ExitCode : int {
  good = 0,
  fileFault = 1,  // The file's: not FLV, torn, damaged, or it doesn't hold what was asked for.
  hostFault = 2,  // The call's or the system's: bad usage, a missing file, a full disk, no module.
};

// One line for a person, without the program's name and without a full stop.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

inline Failure fileFault(const std::string& text) {
  return {ExitCode::fileFault, text};
}
inline Failure hostFault(const std::string& text) {
  return {ExitCode::hostFault, text};
}

// The reader of our output has gone. That is its right: the program ends at once, quietly and well.
class ReaderGone : public std::exception {};

}  // namespace orv::host
