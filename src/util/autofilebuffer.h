// The read cache: one block of a file in memory, over the host's positional read.
//
// Scans read many small pieces at positions that jump around, forwards and backwards. What the block holds is
// served from it; a read that misses places the next block around the asked position in the way that the
// caller named. Buffers can be chained: one that has a parent reads through it. A buffer belongs to one
// stream or one call and has no lock.

#pragma once

#include <cstring>

#include "modules/streams/contract/IFileService.h"
#include "util/KTThrowable.h"

// Names the calling place of a readAt, for its diagnostic.
#define ORV_READ_HERE __LINE__, __FILE_NAME__

namespace orv::util {

// A read of the file came up short. Says nothing more.
class FileReadException : public KTThrowable {};

}  // namespace orv::util

class autofilebuffer {
 public:
  // Where a refill puts the asked position in the block.
  enum Placement : u32 {
    forward = 0,   // at its start
    centred = 1,   // in its middle
    backward = 2,  // at its end
  };

  // Allocates the block at once. `capacity` is in bytes. Borrows the service and the parent.
  autofilebuffer(u32 capacity, IFileService* fileService, autofilebuffer* parent = nullptr);
  ~autofilebuffer() { release(); }
  autofilebuffer(const autofilebuffer&) = delete;
  autofilebuffer& operator=(const autofilebuffer&) = delete;

  // Reads `size` bytes at `position` into `data` and answers how many came. A shortfall that isn't allowed is
  // told on standard output and then, unless `noThrow`, thrown as orv::util::FileReadException; so is,
  // without a text, a position below 0.
  //
  // A centred or backward read that runs past the end of the file doesn't come up short: it goes on with
  // bytes from earlier in the file until the count is full. A check of a tag's size fails on such bytes, and
  // a search goes on to its next candidate instead of ending. What the file can serve is always the file's.
  // Inside a PassThroughScope such a read comes up short like any other.
  u32 readAt(int fd, i64 position, void* data, u32 size, bool allowShort, u32 line, const char* unit,
             bool noThrow, u32 placement) {
    if (holds(fd, position, size)) {
      placement_ = placement;
      fd_ = fd;
      cursor_ = static_cast<u32>(position - blockStart_) + size;
      position_ = position + size;
      std::memcpy(data, block_ + cursor_ - size, size);
      return size;
    }
    return readSlowly(fd, position, data, size, allowShort, line, unit, noThrow, placement);
  }

  // Loads the block around `position` ahead of later reads. False if nothing came or `position` is below 0;
  // inside a PassThroughScope nothing is loaded.
  bool prime(int fd, i64 position, u32 placement);
  // Forgets everything and gives the memory back; the next read takes it anew. This and reset() end a
  // PassThroughScope's effect.
  void release() noexcept;
  // Forgets the block's contents and keeps the memory.
  void reset(int fd, i64 position);

 private:
  friend class PassThroughScope;

  bool holds(int fd, i64 position, u32 size) const {
    return fd != -1 && block_ && position >= blockStart_ && position - blockStart_ < fill_ &&
           size <= fill_ - static_cast<u32>(position - blockStart_);
  }
  u32 readSlowly(int fd, i64 position, void* data, u32 size, bool allowShort, u32 line, const char* unit,
                 bool noThrow, u32 placement);
  void allocate();
  void seek(int fd, i64 position);
  u32 read(u8* data, u32 size);
  u32 take(u8* data, u32 size);
  void refill(i64 next);
  bool holdsNext(i64 next);
  void fill();
  u32 rawRead(i64 position, void* data, u32 size);

  int fd_ = -1;
  u32 fill_ = 0;        // Valid bytes in the block.
  u32 cursor_ = 0;      // Offset in the block of the next byte to deliver.
  i64 position_ = 0;    // What the next refill works from.
  i64 blockStart_ = 0;  // File position of the block's first byte.
  u32 capacity_;
  u8* block_ = nullptr;  // Owned; null after a release.
  bool passThrough_ = false;
  u32 placement_ = forward;
  autofilebuffer* parent_;
  IFileService* fileService_;
};

// While it lives, reads that the block can't serve go straight to the file and the block stays in place.
class PassThroughScope {
 public:
  explicit PassThroughScope(autofilebuffer& buffer) : buffer_(buffer), before_(buffer.passThrough_) {
    buffer_.passThrough_ = true;
  }
  // As it was before: scopes nest.
  ~PassThroughScope() { buffer_.passThrough_ = before_; }
  PassThroughScope(const PassThroughScope&) = delete;
  PassThroughScope& operator=(const PassThroughScope&) = delete;

 private:
  autofilebuffer& buffer_;
  bool before_;
};
