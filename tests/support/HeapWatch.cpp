#include "support/HeapWatch.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace orv::test {

HeapCounts& HeapWatch::counts() {
  thread_local HeapCounts counts;
  return counts;
}

namespace {

void* take(std::size_t size) {
  HeapCounts& counts = HeapWatch::counts();
  const bool fails = counts.untilFailure > 0 && --counts.untilFailure == 0;
  void* const block = fails ? nullptr : std::malloc(size ? size : 1);
  if (!block || !counts.watching) return block;
  const std::size_t usable = malloc_usable_size(block);
  ++counts.allocations;
  counts.bytes += usable;
  counts.live += usable;
  counts.peak = std::max(counts.peak, counts.live);
  return block;
}

void give(void* block) {
  if (block && HeapWatch::counts().watching) HeapWatch::counts().live -= malloc_usable_size(block);
  std::free(block);
}

}  // namespace
}  // namespace orv::test

using Nothrow = std::nothrow_t;
using namespace orv::test;

void* operator new(std::size_t size) {
  if (void* const block = take(size)) return block;
  throw std::bad_alloc();
}

// clang-format off
void* operator new(std::size_t size, const Nothrow&) noexcept { return take(size); }
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const Nothrow&) noexcept { return take(size); }
void operator delete(void* block) noexcept { give(block); }
void operator delete(void* block, std::size_t) noexcept { give(block); }
void operator delete[](void* block) noexcept { give(block); }
void operator delete[](void* block, std::size_t) noexcept { give(block); }
// clang-format on
