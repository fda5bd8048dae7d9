// Standard output and standard error: data goes to the first, all else to the second.

#pragma once

#include <chrono>
#include <string>

namespace orv::host {

// One line on standard error, with the program's name in front; wipes a progress line that stands there.
void tell(const std::string& line);

// To be called once, before anything is printed or opened. Standard output becomes the program's alone: the
// module prints the text of each failed read to it, as its contract says, and that must not get into the
// data. Such text goes nowhere, or to standard error after showModuleOutput().
void claimStandardOutput();
void showModuleOutput();

// Where the data goes; -1 if the program was started without a standard output.
int dataDescriptor();

// Writes text to where the data goes. Throws ReaderGone or Failure if it can't be written.
void print(const std::string& text);
// To be called at the end of a command that prints: what is still buffered goes out, or throws as above.
void flushOutput();

// A line that is written again and again, a few times a second, if standard error is a terminal.
class Progress {
 public:
  Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  // True if it's time to show something new: asked before the text is made.
  bool isDue();
  void show(const std::string& text);

 private:
  using Clock = std::chrono::steady_clock;

  const bool onTerminal_;
  Clock::time_point next_;
};

}  // namespace orv::host
