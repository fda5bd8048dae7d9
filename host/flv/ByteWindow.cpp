#include "host/flv/ByteWindow.h"

#include <algorithm>
#include <cstring>

namespace orv::host {

namespace {

constexpr std::size_t kBlock = std::size_t{256} * 1024;
constexpr std::size_t kBlockAfterJump = std::size_t{8} * 1024;  // Doubled with each read up to kBlock.
constexpr std::size_t kSmall = 2 * kBlock;
// With as much room again, what is kept is moved to the front once in a window's length at most.
constexpr std::size_t kLarge = 2 * ByteWindow::kMostAtOnce;

}  // namespace

ByteWindow::ByteWindow(ByteSource& source) : source_(source), readSize_(kBlock) {}

void ByteWindow::fill(i64 position, std::size_t size) {
  if (ended_) return;
  if (floor_ > begin_ + static_cast<i64>(filled_) && source_.isSeekable()) jumpToFloor();
  const std::size_t kept = filled_ - static_cast<std::size_t>(floor_ - begin_);
  if (kept <= filled_ / 2) dropForgotten();
  std::size_t needed = static_cast<std::size_t>(position - begin_) + size;
  if (needed > capacity_) {
    dropForgotten();
    needed = static_cast<std::size_t>(position - begin_) + size;
    reserve(needed);
  }
  while (filled_ < needed && !ended_) {
    const std::size_t wanted = std::min(capacity_ - filled_, std::max(needed - filled_, readSize_));
    readSize_ = std::min(2 * readSize_, kBlock);
    const std::size_t got = source_.read(begin_ + static_cast<i64>(filled_), bytes_.get() + filled_, wanted);
    filled_ += got;
    ended_ = got < wanted;
  }
}

void ByteWindow::jumpToFloor() {
  begin_ = floor_;
  filled_ = 0;
  readSize_ = kBlockAfterJump;
}

void ByteWindow::dropForgotten() {
  const std::size_t forgotten = std::min(static_cast<std::size_t>(floor_ - begin_), filled_);
  if (forgotten == 0) return;
  std::memmove(bytes_.get(), bytes_.get() + forgotten, filled_ - forgotten);
  filled_ -= forgotten;
  begin_ += static_cast<i64>(forgotten);
}

void ByteWindow::reserve(std::size_t size) {
  if (size <= capacity_) return;
  capacity_ = size <= kSmall ? kSmall : std::max(kLarge, size);
  auto grown = std::make_unique_for_overwrite<u8[]>(capacity_);  // Pages that aren't used cost nothing.
  std::copy_n(bytes_.get(), filled_, grown.get());
  bytes_ = std::move(grown);
}

}  // namespace orv::host
