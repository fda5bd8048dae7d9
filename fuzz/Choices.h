// Decisions of a structured fuzz target, drawn from its input one after the other. Behind the input's end
// every decision is 0.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "platform/Types.h"

// A promise that a target holds the product to.
#define HOLDS(condition) \
  ((condition) ? void() : (std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), std::abort()))

namespace orv::test {

class Choices {
 public:
  Choices(const u8* data, std::size_t size) : next_(data), end_(data + size) {}

  bool empty() const { return next_ == end_; }
  u8 byte() { return empty() ? 0 : *next_++; }
  u32 number() { return u32{byte()} << 24 | u32{byte()} << 16 | u32{byte()} << 8 | byte(); }
  u32 below(u32 limit) { return limit <= 256 ? byte() % limit : number() % limit; }
  bool oneIn(u32 n) { return byte() % n == n - 1; }
  template <class T, std::size_t N>
  const T& of(const T (&values)[N]) {
    return values[below(N)];
  }

 private:
  const u8* next_;
  const u8* end_;
};

}  // namespace orv::test
