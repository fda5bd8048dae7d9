// The memory that a fiber runs on.

#pragma once

#include <cstddef>

namespace orv::platform {

// Bytes of stack above a guard of 64 KiB that faults. Owns both.
class FiberStack {
 public:
  FiberStack() = default;
  FiberStack(const FiberStack&) = delete;
  FiberStack& operator=(const FiberStack&) = delete;
  ~FiberStack();

  // Takes whole pages: at least `size` bytes, and room for a few calls. Returns false when there is no
  // memory.
  bool allocate(std::size_t size);

  char* bottom() const { return bottom_; }
  char* top() const { return bottom_ + size_; }
  std::size_t size() const { return size_; }

 private:
  char* bottom_ = nullptr;  // Above the guard; null when nothing is owned.
  std::size_t size_ = 0;
};

}  // namespace orv::platform
