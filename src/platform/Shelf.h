// A few places where things are kept for the next taker.

#pragma once

#include <array>
#include <atomic>
#include <cstddef>

#include "platform/Sanitizers.h"

namespace orv::platform {

// Under the address sanitizer nothing is kept, so that a use after the return is seen.
#if defined(ORV_ASAN)
inline constexpr bool kShelvesKeep = false;
#else
inline constexpr bool kShelvesKeep = true;
#endif

// Any thread may take and put. Whatever still lies on the shelf at its end is handed to `Free`.
template <class Thing, std::size_t kPlaces, void (*Free)(Thing*)>
class Shelf {
 public:
  constexpr Shelf() = default;
  ~Shelf() {
    while (Thing* const thing = take()) Free(thing);
  }
  Shelf(const Shelf&) = delete;
  Shelf& operator=(const Shelf&) = delete;

  // Returns null if the shelf is empty.
  Thing* take() {
    for (auto& place : places_) {
      if (!place.load(std::memory_order_relaxed)) continue;
      if (Thing* const thing = place.exchange(nullptr, std::memory_order_acquire)) return thing;
    }
    return nullptr;
  }

  // Returns false if the shelf is full: the thing stays the caller's.
  bool put(Thing* thing) {
    if (!kShelvesKeep) return false;
    for (auto& place : places_) {
      Thing* empty = nullptr;
      if (place.compare_exchange_strong(empty, thing, std::memory_order_release, std::memory_order_relaxed))
        return true;
    }
    return false;
  }

 private:
  std::array<std::atomic<Thing*>, kPlaces> places_{};
};

}  // namespace orv::platform
