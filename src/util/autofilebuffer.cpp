#include "util/autofilebuffer.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <utility>

#include "platform/Descriptor.h"
#include "util/WarmBlocks.h"

using orv::util::FileReadException;
using orv::util::WarmBlocks;

namespace {

// Where a block must start for `position` to fall where `placement` wants it.
i64 startOfBlock(i64 position, u32 capacity, autofilebuffer::Placement placement) {
  if (placement == autofilebuffer::forward) return position;
  const i64 ahead = placement == autofilebuffer::centred ? capacity / 2 : capacity;
  return position > ahead ? position - ahead : 0;
}

void tellShortRead(u32 wanted, u32 got, int fd, const char* unit, u32 line) {
  const int error = orv::platform::lastErrorCode();
  char text[512];
  std::snprintf(text, sizeof text, "%s%u bytes, got %u file descriptor %d in file %s line %u",
                got > 0 ? "FLV file read underrun, wanted " : "FLV file read failed, wanted ", wanted, got,
                fd, unit, line);
  std::printf("%s error-code %d", text, error);
}

}  // namespace

autofilebuffer::autofilebuffer(u32 capacity, IFileService* fileService, autofilebuffer* parent)
    : capacity_(capacity), parent_(parent), fileService_(fileService) {
  allocate();
}

void autofilebuffer::allocate() {
  if (!block_ && capacity_ != 0) block_ = WarmBlocks::take(capacity_);
}

u32 autofilebuffer::readSlowly(int fd, i64 position, void* data, u32 size, bool allowShort, u32 line,
                               const char* unit, bool noThrow, Placement placement) {
  if (position < 0) {
    if (noThrow) return 0;
    throw FileReadException();
  }
  allocate();
  placement_ = placement;
  seek(fd, position);
  const u32 got = read(static_cast<u8*>(data), size);
  if (got < size && !allowShort) {
    tellShortRead(size, got, fd, unit, line);
    if (!noThrow) throw FileReadException();
  }
  return got;
}

void autofilebuffer::seek(int fd, i64 position) {
  if (position >= blockStart_ && position - blockStart_ < fill_) {
    cursor_ = static_cast<u32>(position - blockStart_);
  } else if (passThrough_) {
    cursor_ = fill_;
  } else {
    reset(fd, position);
  }
  fd_ = fd;
  position_ = position;
}

u32 autofilebuffer::read(u8* data, u32 size) {
  if (fd_ == -1 || !block_) return 0;
  const i64 asked = position_;
  bool wrapped = false;
  u32 got = take(data, size);
  try {
    while (got < size) {
      if (passThrough_) {
        const u32 came = rawRead(position_, data + got, size - got);
        position_ += came;
        got += came;
      } else {
        refill(asked, got, &wrapped);
        got += take(data + got, size - got);
      }
    }
  } catch (const FileReadException&) {
    // The file ends here, or the disk fails: what came is the answer.
  }
  return got;
}

u32 autofilebuffer::take(u8* data, u32 size) {
  if (cursor_ >= fill_) return 0;
  const u32 count = std::min(size, fill_ - cursor_);
  std::memcpy(data, block_ + cursor_, count);
  cursor_ += count;
  position_ += count;
  return count;
}

// The next byte to deliver is the one at `asked` + `got`. position_ differs from that once a centred or
// backward block has run out: then the file itself is asked first, and only where it ends does the block move
// back. Once it has (`*wrapped`), the file isn't asked for that byte again, nor for its first block: a long
// read in a file of a few bytes would take thousands of calls.
void autofilebuffer::refill(i64 asked, u32 got, bool* wrapped) {
  if (*wrapped && blockStart_ == 0 && startOfBlock(position_, capacity_, placement_) == 0) {
    cursor_ = static_cast<u32>(std::exchange(position_, 0));
    return;
  }
  const bool moved = position_ - got != asked;
  const bool inAnyFile = got <= std::numeric_limits<i64>::max() - asked;
  if (!*wrapped && moved && inAnyFile && holdsNext(asked + got)) return;
  *wrapped = moved;
  fill();
}

bool autofilebuffer::holdsNext(i64 next) {
  const i64 wrapped = position_;
  const Placement placement = placement_;
  placement_ = forward;
  position_ = next;
  bool came = true;
  try {
    fill();
  } catch (const FileReadException&) {
    came = false;
    position_ = wrapped;
  }
  placement_ = placement;
  return came;
}

// Where nothing comes, the block stays as it was.
void autofilebuffer::fill() {
  const i64 start = startOfBlock(position_, capacity_, placement_);
  cursor_ = static_cast<u32>(position_ - start);
  position_ = start;
  fill_ = rawRead(start, block_, capacity_);
  blockStart_ = start;
}

u32 autofilebuffer::rawRead(i64 position, void* data, u32 size) {
  if (parent_) {
    const u32 got = parent_->readAt(fd_, position, data, size, true, ORV_READ_HERE, true, placement_);
    if (got == 0) throw FileReadException();
    return got;
  }
  const int got = fileService_->read(fd_, position, data, size);
  if (got < 1) throw FileReadException();
  return std::min(static_cast<u32>(got), size);
}

bool autofilebuffer::prime(int fd, i64 position, Placement placement) {
  allocate();
  if (position < 0) return false;
  placement_ = placement;
  seek(fd, position);
  if (passThrough_) return true;
  try {
    fill();
  } catch (const FileReadException&) {
    return false;
  }
  return true;
}

void autofilebuffer::release() noexcept {
  reset(-1, 0);
  WarmBlocks::give(block_);
  block_ = nullptr;
}

void autofilebuffer::reset(int fd, i64 position) {
  passThrough_ = false;
  fill_ = 0;
  cursor_ = 0;
  fd_ = fd;
  position_ = position;
}
