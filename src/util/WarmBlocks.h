// Large memory blocks that come and go with each load or flush.
//
// The first touch of a fresh page costs the kernel far more than the copy into it, and on virtual machines
// dearly so. A block that is given back stays mapped for the next taker. Up to ten blocks of each size, and
// 64 MiB in all, are kept; anything beyond goes back to the system.

#pragma once

#include <cstddef>

#include "platform/Types.h"

namespace orv::util {

class WarmBlocks {
 public:
  // Returns at least `size` bytes of unspecified content. Any thread. Throws std::bad_alloc.
  static u8* take(std::size_t size);
  // Takes back what `take` gave; null is ignored. Any thread.
  static void give(u8* block) noexcept;
};

// One block for the length of a scope.
class WarmBlock {
 public:
  explicit WarmBlock(std::size_t size) : data_(WarmBlocks::take(size)) {}
  ~WarmBlock() { WarmBlocks::give(data_); }
  WarmBlock(const WarmBlock&) = delete;
  WarmBlock& operator=(const WarmBlock&) = delete;

  u8* data() const { return data_; }

 private:
  u8* data_;
};

}  // namespace orv::util
