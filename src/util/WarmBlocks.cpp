#include "util/WarmBlocks.h"

#include <array>
#include <atomic>
#include <bit>
#include <new>

#include "platform/Shelf.h"

namespace orv::util {
namespace {

// Size classes are powers of two.
constexpr unsigned kSmallestBits = 15;  // 32 KiB
constexpr unsigned kLargestBits = 24;   // 16 MiB
constexpr unsigned kClasses = kLargestBits - kSmallestBits + 1;
constexpr unsigned kNoClass = kClasses;
constexpr unsigned kKeptPerClass = 10;
constexpr std::size_t kKeptBytes = 64 << 20;
// In front of the bytes stands the block's class.
constexpr std::size_t kPrefix = 64;

std::size_t bytesOf(unsigned which) {
  return std::size_t{1} << (which + kSmallestBits);
}

unsigned& classOf(u8* block) {
  return *reinterpret_cast<unsigned*>(block - kPrefix);
}

void freeBlock(u8* block) {
  ::operator delete(block - kPrefix);
}

std::array<platform::Shelf<u8, kKeptPerClass, freeBlock>, kClasses> shelves;
constinit std::atomic<std::size_t> keptBytes{0};  // On all shelves; for a moment more than that.

unsigned sizeClass(std::size_t size) {
  if (!platform::kShelvesKeep || size > std::size_t{1} << kLargestBits) return kNoClass;
  const auto bits = static_cast<unsigned>(std::bit_width(size > 1 ? size - 1 : 1));
  return bits <= kSmallestBits ? 0 : bits - kSmallestBits;
}

// False if the class or the whole has enough.
bool keep(u8* block, unsigned which) noexcept {
  const std::size_t bytes = bytesOf(which);
  const bool fits = keptBytes.fetch_add(bytes, std::memory_order_relaxed) + bytes <= kKeptBytes;
  if (fits && shelves[which].put(block)) return true;
  keptBytes.fetch_sub(bytes, std::memory_order_relaxed);
  return false;
}

}  // namespace

u8* WarmBlocks::take(std::size_t size) {
  const unsigned which = sizeClass(size);
  if (which != kNoClass) {
    if (u8* const block = shelves[which].take()) {
      keptBytes.fetch_sub(bytesOf(which), std::memory_order_relaxed);
      return block;
    }
    size = bytesOf(which);
  }
  if (size > SIZE_MAX - kPrefix) throw std::bad_alloc();
  u8* const block = static_cast<u8*>(::operator new(size + kPrefix)) + kPrefix;
  new (block - kPrefix) unsigned(which);
  return block;
}

void WarmBlocks::give(u8* block) noexcept {
  if (!block) return;
  const unsigned which = classOf(block);
  if (which == kNoClass || !keep(block, which)) freeBlock(block);
}

}  // namespace orv::util
