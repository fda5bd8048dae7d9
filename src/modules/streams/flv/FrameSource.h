// Where the frame checks take their bytes from.

#pragma once

#include "util/autofilebuffer.h"

namespace orv::flv {

class FrameSource {
 public:
  // Returns the bytes that came. A shortfall throws orv::util::FileReadException if `raise` is set.
  virtual u32 read(i64 position, u8* data, u32 size, bool raise) = 0;

 protected:
  ~FrameSource() = default;
};

// Straight from a read cache, centred.
class BufferSource : public FrameSource {
 public:
  BufferSource(autofilebuffer& buffer, int fd) : buffer_(buffer), fd_(fd) {}
  u32 read(i64 position, u8* data, u32 size, bool raise) override {
    if (!raise)
      return buffer_.readOrReport(fd_, position, data, size, ORV_READ_HERE, autofilebuffer::centred);
    buffer_.readExactly(fd_, position, data, size, ORV_READ_HERE, autofilebuffer::centred);
    return size;
  }

 private:
  autofilebuffer& buffer_;
  int fd_;
};

}  // namespace orv::flv
