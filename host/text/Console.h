// Standard output and standard error: data goes to the first, all else to the second.

#pragma once

#include <chrono>
#include <string>

#include "platform/Types.h"

namespace orv::host {

// One line on standard error, with the program's name in front; wipes a progress line that stands there.
void report(const std::string& line);

// The same for what is no error: nothing after beQuiet(), which ends progress lines too.
void note(const std::string& line);
void beQuiet();

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

// Whether what is printed may bear colours: a terminal shows it, and NO_COLOR is unset or empty.
bool isColoured();

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
  // Shows how much of `total` bytes is done, how fast, and what time is left, then `text`.
  void showShare(i64 done, i64 total, const std::string& text);

 private:
  using Clock = std::chrono::steady_clock;

  const bool onTerminal_;
  const Clock::time_point start_;
  Clock::time_point next_;
};

// "42%  120 MiB/s  0:35 left"; without share and time left where the total, 0 then, isn't known.
std::string shareText(i64 done, i64 total, std::chrono::milliseconds elapsed);

}  // namespace orv::host
