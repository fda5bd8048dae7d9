#include "util/WarmBlocks.h"

#include <array>
#include <atomic>
#include <bit>
#include <new>

namespace orv::util {
namespace {

// Under the address sanitizer every block is its own allocation, so that a use after the return is seen.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kKeepBlocks = false;
#elif defined(__has_feature)
constexpr bool kKeepBlocks = !__has_feature(address_sanitizer);
#else
constexpr bool kKeepBlocks = true;
#endif

// Size classes are powers of two.
constexpr unsigned kSmallestBits = 15;  // 32 KiB
constexpr unsigned kLargestBits = 20;   // 1 MiB
constexpr unsigned kClasses = kLargestBits - kSmallestBits + 1;
constexpr unsigned kNoClass = kClasses;
constexpr unsigned kKeptPerClass = 10;
// In front of the bytes stands the block's class.
constexpr std::size_t kPrefix = 64;

unsigned& classOf(u8* block) {
  return *reinterpret_cast<unsigned*>(block - kPrefix);
}

void freeBlock(u8* block) noexcept {
  ::operator delete(block - kPrefix);
}

struct Shelves {
  std::array<std::array<std::atomic<u8*>, kKeptPerClass>, kClasses> slots{};

  ~Shelves() {
    for (auto& shelf : slots) {
      for (auto& slot : shelf) {
        if (u8* block = slot.exchange(nullptr)) freeBlock(block);
      }
    }
  }
};
Shelves shelves;

unsigned sizeClass(std::size_t size) {
  if (!kKeepBlocks || size > std::size_t{1} << kLargestBits) return kNoClass;
  const auto bits = static_cast<unsigned>(std::bit_width(size > 1 ? size - 1 : 1));
  return bits <= kSmallestBits ? 0 : bits - kSmallestBits;
}

}  // namespace

u8* WarmBlocks::take(std::size_t size) {
  const unsigned which = sizeClass(size);
  if (which != kNoClass) {
    for (auto& slot : shelves.slots[which]) {
      if (slot.load(std::memory_order_relaxed) == nullptr) continue;
      if (u8* block = slot.exchange(nullptr, std::memory_order_acquire)) return block;
    }
    size = std::size_t{1} << (which + kSmallestBits);
  }
  if (size > SIZE_MAX - kPrefix) throw std::bad_alloc();
  u8* const block = static_cast<u8*>(::operator new(size + kPrefix)) + kPrefix;
  new (block - kPrefix) unsigned(which);
  return block;
}

void WarmBlocks::give(u8* block) noexcept {
  if (!block) return;
  const unsigned which = classOf(block);
  if (which != kNoClass) {
    for (auto& slot : shelves.slots[which]) {
      u8* empty = nullptr;
      if (slot.compare_exchange_strong(empty, block, std::memory_order_release, std::memory_order_relaxed))
        return;
    }
  }
  freeBlock(block);
}

}  // namespace orv::util
