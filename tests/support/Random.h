// Numbers that are the same on every machine.

#pragma once

#include "platform/Types.h"

namespace orv::test {

class Random {
 public:
  explicit Random(u32 seed) : state_(seed + 1) {}
  u32 operator()() {
    state_ = state_ * 6364136223846793005 + 1442695040888963407;
    return static_cast<u32>(state_ >> 32);
  }
  u32 below(u32 limit) { return (*this)() % limit; }
  bool oneIn(u32 n) { return below(n) == 0; }

 private:
  u64 state_;
};

}  // namespace orv::test
