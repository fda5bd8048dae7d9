#include "support/HeapWatch.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace orv::test {
namespace {

struct Counts {
  bool watching = false;
  std::size_t allocations = 0;
  std::size_t bytes = 0;
  std::size_t live = 0;
  std::size_t peak = 0;
  std::size_t untilFailure = 0;
};
thread_local Counts counts;

bool failsNow() {
  return counts.watching && counts.untilFailure > 0 && --counts.untilFailure == 0;
}

void* take(std::size_t size) {
  void* const block = failsNow() ? nullptr : std::malloc(size ? size : 1);
  if (!block || !counts.watching) return block;
  const std::size_t usable = malloc_usable_size(block);
  ++counts.allocations;
  counts.bytes += usable;
  counts.live += usable;
  counts.peak = std::max(counts.peak, counts.live);
  return block;
}

void give(void* block) {
  if (block && counts.watching) counts.live -= malloc_usable_size(block);
  std::free(block);
}

}  // namespace

HeapWatch::HeapWatch() {
  counts = {};
  counts.watching = true;
}

HeapWatch::~HeapWatch() {
  counts = {};
}

std::size_t HeapWatch::allocations() const {
  return counts.allocations;
}

std::size_t HeapWatch::bytes() const {
  return counts.bytes;
}

std::size_t HeapWatch::live() const {
  return counts.live;
}

std::size_t HeapWatch::peak() const {
  return counts.peak;
}

void HeapWatch::failAt(std::size_t n) {
  counts.untilFailure = n;
}

bool HeapWatch::failurePending() const {
  return counts.untilFailure > 0;
}

}  // namespace orv::test

void* operator new(std::size_t size) {
  if (void* const block = orv::test::take(size)) return block;
  throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return orv::test::take(size);
}

void* operator new[](std::size_t size) {
  return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return orv::test::take(size);
}

void operator delete(void* block) noexcept {
  orv::test::give(block);
}

void operator delete(void* block, std::size_t) noexcept {
  orv::test::give(block);
}

void operator delete[](void* block) noexcept {
  orv::test::give(block);
}

void operator delete[](void* block, std::size_t) noexcept {
  orv::test::give(block);
}
