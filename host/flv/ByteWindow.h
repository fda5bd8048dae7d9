// A stretch of a ByteSource in memory, which moves forwards.

#pragma once

#include <memory>
#include <span>

#include "host/files/ByteSource.h"

namespace orv::host {

// Keeps to 512 KiB, which stay in the processor's cache, until it is asked for more at once. What is
// forgotten before it was read isn't read at all, if the source is seekable.
class ByteWindow {
 public:
  // The most that may be asked for at once: the largest tag, and a good look at what follows.
  static constexpr std::size_t kMostAtOnce = std::size_t{17} << 20;

  explicit ByteWindow(ByteSource& source);

  // Returns the bytes from `position` on that are in memory: at least `size`, or all up to the end of the
  // source. Valid until the next call.
  std::span<const u8> view(i64 position, std::size_t size) {
    if (static_cast<std::size_t>(position - begin_) + size > filled_) fill(position, size);
    const auto from = static_cast<std::size_t>(position - begin_);
    return from < filled_ ? std::span<const u8>(bytes_.get() + from, filled_ - from) : std::span<const u8>();
  }
  // Nothing before `position` will be asked for again.
  void forget(i64 position) { floor_ = position; }

 private:
  void fill(i64 position, std::size_t size);
  void reserve(std::size_t size);
  void jumpToFloor();
  void dropForgotten();

  ByteSource& source_;
  std::unique_ptr<u8[]> bytes_;
  std::size_t capacity_ = 0;
  i64 begin_ = 0;           // Position of the first byte in memory.
  std::size_t filled_ = 0;  // Bytes in memory.
  i64 floor_ = 0;
  bool ended_ = false;
  std::size_t readSize_;  // The least that is read at once.
};

}  // namespace orv::host
