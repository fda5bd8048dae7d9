#include "platform/FiberStack.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "platform/FiberSanitizer.h"

namespace orv::platform {

namespace {

std::size_t pageSize() {
  static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

constexpr std::size_t kLeast = 16384;  // A function or two, and what a signal handler takes.

}  // namespace

bool FiberStack::allocate(std::size_t size) {
  const std::size_t page = pageSize();
  if (size > SIZE_MAX - 2 * page) return false;
  const std::size_t usable = (std::max(size, kLeast) + page - 1) / page * page;
  void* const whole =
      mmap(nullptr, usable + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (whole == MAP_FAILED) return false;
  if (mprotect(whole, page, PROT_NONE) != 0) {
    munmap(whole, usable + page);
    return false;
  }
  bottom_ = static_cast<char*>(whole) + page;
  size_ = usable;
  sanitizer::stackMade(bottom_, size_);
  return true;
}

FiberStack::~FiberStack() {
  if (!bottom_) return;
  sanitizer::stackGone(bottom_, size_);
  munmap(bottom_ - pageSize(), size_ + pageSize());
}

}  // namespace orv::platform
