// What one call of the contract may cost, whatever the file holds.

#pragma once

#include "Choices.h"
#include "support/HeapWatch.h"
#include "support/MemoryHost.h"

namespace orv::test {

// Stands around one call, from a cleared call log on. `bytesInPlay`: of the file, or of the messages in hand.
class Budget {
 public:
  Budget(const MemoryHost& host, i64 bytesInPlay) : host_(host), bytes_(std::max<i64>(bytesInPlay, 0)) {}

  void check() const {
    // Reads of 64 KiB at the very worst, but for a look around each of a few places; what is read is read a
    // few times over, by searches that end in the same damage.
    HOLDS(static_cast<i64>(host_.calls.size()) <= kFewCalls + bytes_ / kCallEach);
    HOLDS(host_.bytesRead() <= kFewBytes + 4 * bytes_);
    // The host's own copies and log count here too.
    HOLDS(static_cast<i64>(heap_->peak) <= kFewBytes + 4 * bytes_);
  }

 private:
  static constexpr i64 kFewCalls = 500, kCallEach = 256, kFewBytes = 2'000'000;

  const MemoryHost& host_;
  const i64 bytes_;
  const HeapWatch heap_;
};

}  // namespace orv::test
