// What the program takes from the heap while a watch stands. One watch at a time, for the thread that made
// it.
//
// A program that links this has its operator new and delete replaced by counting ones.

#pragma once

#include <cstddef>

namespace orv::test {

class HeapWatch {
 public:
  HeapWatch();
  ~HeapWatch();
  HeapWatch(const HeapWatch&) = delete;
  HeapWatch& operator=(const HeapWatch&) = delete;

  std::size_t allocations() const;
  std::size_t bytes() const;  // Of all allocations together,
  std::size_t live() const;   // of those not yet freed,
  std::size_t peak() const;   // and the most there were at a time, with what the allocator rounds up.
  // From now on the n-th allocation throws std::bad_alloc, or gives null where it may not throw; 0: none
  // does.
  void failAt(std::size_t n);
  bool failurePending() const;
};

}  // namespace orv::test
