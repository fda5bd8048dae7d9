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

  // Read `size` bytes at `position` into `data`. Where fewer come, or the position is below 0, readSome
  // returns how many came; readOrReport does too, and reports the shortfall on standard output; readExactly
  // reports it and throws orv::util::FileReadException. A position below 0 is not reported.
  //
  // A centred or backward read that runs past the end of the file doesn't come up short: it goes on with
  // bytes from earlier in the file until the count is full. A check of a tag's size fails on such bytes, and
  // a search goes on to its next candidate instead of ending. What the file can serve is always the file's.
  // Inside a PassThroughScope such a read comes up short like any other.
  u32 readSome(int fd, i64 position, void* data, u32 size, Placement placement) {
    return readAt(fd, position, data, size, true, ORV_READ_HERE, true, placement);
  }
  u32 readOrReport(int fd, i64 position, void* data, u32 size, u32 line, const char* unit,
                   Placement placement) {
    return readAt(fd, position, data, size, false, line, unit, true, placement);
  }
  void readExactly(int fd, i64 position, void* data, u32 size, u32 line, const char* unit,
                   Placement placement = forward) {
    readAt(fd, position, data, size, false, line, unit, false, placement);
  }

  u32 capacity() const { return capacity_; }
  // Loads the block around `position` ahead of later reads. Returns false if nothing came or `position` is
  // below 0. Loads nothing inside a PassThroughScope.
  bool prime(int fd, i64 position, Placement placement);
  // Forgets everything and gives the memory back; the next read takes it anew. This and reset() end a
  // PassThroughScope's effect.
  void release() noexcept;
  // Forgets the block's contents and keeps the memory.
  void reset(int fd, i64 position);

 private:
  friend class PassThroughScope;

  u32 readAt(int fd, i64 position, void* data, u32 size, bool allowShort, u32 line, const char* unit,
             bool noThrow, Placement placement) {
    if (!holds(fd, position, size))
      return readSlowly(fd, position, data, size, allowShort, line, unit, noThrow, placement);
    placement_ = placement;
    fd_ = fd;
    cursor_ = static_cast<u32>(position - blockStart_) + size;
    position_ = position + size;
    std::memcpy(data, block_ + cursor_ - size, size);
    return size;
  }
  bool holds(int fd, i64 position, u32 size) const {
    return fd != -1 && block_ && position >= blockStart_ && position - blockStart_ < fill_ &&
           size <= fill_ - static_cast<u32>(position - blockStart_);
  }
  u32 readSlowly(int fd, i64 position, void* data, u32 size, bool allowShort, u32 line, const char* unit,
                 bool noThrow, Placement placement);
  void allocate();
  void seek(int fd, i64 position);
  u32 read(u8* data, u32 size);
  u32 take(u8* data, u32 size);
  void refill(i64 asked, u32 got, bool* wrapped);
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
  Placement placement_ = forward;
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

// Gives the buffer's memory back at the end of an operation, on every way out.
class BlockRelease {
 public:
  explicit BlockRelease(autofilebuffer& buffer) : buffer_(buffer) {}
  ~BlockRelease() { buffer_.release(); }
  BlockRelease(const BlockRelease&) = delete;
  BlockRelease& operator=(const BlockRelease&) = delete;

 private:
  autofilebuffer& buffer_;
};
