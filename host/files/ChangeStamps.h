// A number for a file's state that differs after every change of the file, however fast changes follow each
// other. The module compares nothing else to find out that a file has grown.

#pragma once

#include <sys/stat.h>

#include <map>
#include <mutex>
#include <utility>

#include "platform/Types.h"

namespace orv::host {

// The system's clock, in nanoseconds since 1970.
i64 systemTime();

// The kernel's times alone won't do: on many kernels two changes inside one tick (1 to 10 ms) bear the same
// time. So a stamp isn't a time but a running number, dealt anew whenever a file is found in another state
// than the last time it was looked at. What makes another state:
//   - another modification or change time, or another size: any writer;
//   - a write that this process made through the file service, even one in place within a tick;
//   - the moment when the last change has become older than a tick. A change in place by another process,
//     within the tick in which the file was last looked at, shows in none of the above; this shows it, a
//     few milliseconds late. The price is that a file at rest gets one more stamp, once, after its change.
// Not covered: writes through a memory map that the kernel hasn't yet passed to the file system, and file
// systems whose times stand still or run behind the clock by more than the margin below.
// A stamp is never 0 and never dealt twice, so a file that was replaced by another one shows as well. One
// small entry is kept for each file met. Safe from any thread.
class ChangeStamps {
 public:
  using Clock = i64 (*)();  // Nanoseconds since 1970.
  explicit ChangeStamps(Clock now = systemTime) : now_(now) {}

  // The stamp of the file that `status` describes, just taken by stat or fstat.
  u32 of(const struct stat& status);
  // To be called after a write has reached the file, and before anybody learns that it has.
  void noteWrite(dev_t device, ino_t inode);

 private:
  struct State {
    i64 modified;  // Nanoseconds.
    i64 changed;
    i64 size;
    bool settled;
    bool operator==(const State&) const = default;
  };
  struct Entry {
    State state;
    u32 stamp;
  };

  u32 deal() { return ++last_ != 0 ? last_ : ++last_; }

  const Clock now_;
  std::mutex mutex_;
  // Under mutex_.
  std::map<std::pair<dev_t, ino_t>, Entry> entries_;
  u32 last_ = 0;
};

}  // namespace orv::host
