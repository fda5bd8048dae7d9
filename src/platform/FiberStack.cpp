#include "platform/FiberStack.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "platform/FiberSanitizer.h"
#include "platform/Shelf.h"

namespace orv::platform {

namespace {

std::size_t pageSize() {
  static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

constexpr std::size_t kLeast = 16384;  // A function or two, and what a signal handler takes.
constexpr std::size_t kGuard = 65536;  // Whole pages on every machine that this runs on.

// Mapping a stack and touching it anew costs some seventy times as much as running on one that is there.
// Stacks of the usual size are kept, 4 MiB at the very most.
constexpr std::size_t kUsual = 262144;
constexpr std::size_t kKept = 16;

// Returns the bottom of a new stack; null when the system has none to give.
char* mapStack(std::size_t size) {
  void* const whole =
      mmap(nullptr, kGuard + size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (whole == MAP_FAILED) return nullptr;
  if (mprotect(whole, kGuard, PROT_NONE) == 0) return static_cast<char*>(whole) + kGuard;
  munmap(whole, kGuard + size);
  return nullptr;
}

void unmapStack(char* bottom, std::size_t size) {
  munmap(bottom - kGuard, kGuard + size);
}

void unmapUsual(char* bottom) {
  unmapStack(bottom, kUsual);
}

constinit Shelf<char, kKept, unmapUsual> shelf;

}  // namespace

bool FiberStack::allocate(std::size_t size) {
  const std::size_t page = pageSize();
  if (size > SIZE_MAX - kGuard - page) return false;
  size_ = (std::max(size, kLeast) + page - 1) / page * page;
  bottom_ = size_ == kUsual ? shelf.take() : nullptr;
  if (!bottom_) bottom_ = mapStack(size_);
  if (!bottom_) return false;
  sanitizer::stackMade(bottom_, size_);
  return true;
}

FiberStack::~FiberStack() {
  if (!bottom_) return;
  sanitizer::stackGone(bottom_, size_);
  if (size_ != kUsual || !shelf.put(bottom_)) unmapStack(bottom_, size_);
}

}  // namespace orv::platform
