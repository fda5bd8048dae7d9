// Ends a command in good order on Ctrl-C: the signals that ask a program to end become something to wait for.

#pragma once

#include <chrono>
#include <optional>

#include "platform/Types.h"

namespace orv::host {

// From its making on, SIGINT, SIGTERM and SIGHUP interrupt nothing any more, not even for a second time: a
// write that is under way is finished. One that the program was started to ignore stays ignored. To be made
// on the main thread, before any other thread starts.
class StopSignals {
 public:
  using Duration = std::chrono::milliseconds;
  struct Wake {
    bool stop = false;   // A signal has come.
    bool ready = false;  // `fd` has input, or has ended.
  };

  StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  ~StopSignals();

  // Waits for a signal, for input on `fd` or its end, for `timeout`; without one, for as long as it takes.
  // May return early.
  Wake waitForInput(int fd, std::optional<Duration> timeout) const;
  // The same, but waits for the other side of `fd` to go, for an `fd` that is written to. -1: none.
  Wake waitForReaderGone(int fd, Duration timeout) const;

 private:
  Wake wait(int fd, short events, int timeout) const;

  const int signals_;
};

}  // namespace orv::host
