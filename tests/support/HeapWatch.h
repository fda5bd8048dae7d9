// What this thread takes from the heap while a watch stands. One watch at a time.
//
// A program that links this has its operator new and delete replaced by counting ones.

#pragma once

#include <cstddef>

namespace orv::test {

struct HeapCounts {
  bool watching = false;
  std::size_t allocations = 0;
  std::size_t bytes = 0;  // Of all allocations together, as the allocator rounds them up.
  std::size_t live = 0;   // Not yet freed,
  std::size_t peak = 0;   // and the most of it at a time.
  std::size_t untilFailure = 0;
};

class HeapWatch {
 public:
  HeapWatch() { counts().watching = true; }
  ~HeapWatch() { counts() = {}; }
  HeapWatch(const HeapWatch&) = delete;
  HeapWatch& operator=(const HeapWatch&) = delete;

  const HeapCounts* operator->() const { return &counts(); }
  // The n-th allocation from now on throws std::bad_alloc, or gives null where it may not throw.
  void failAt(std::size_t n) { counts().untilFailure = n; }
  bool failurePending() const { return counts().untilFailure > 0; }

  static HeapCounts& counts();
};

}  // namespace orv::test
