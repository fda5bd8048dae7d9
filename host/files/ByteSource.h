// Bytes to be read from front to back: a file, a pipe, or what a server gives out by ranges.

#pragma once

#include <cstddef>
#include <string>

#include "platform/Types.h"

namespace orv::host {

class ByteSource {
 public:
  virtual ~ByteSource() = default;

  // What messages call it.
  virtual const std::string& name() const = 0;
  // -1 where it isn't known before the end.
  virtual i64 size() const = 0;
  // Whether any position may be asked for, at the cost of one read.
  virtual bool isSeekable() const { return false; }
  // Reads up to `size` bytes at `position` and returns how many: fewer at the end alone. Unless isSeekable(),
  // each position is the end of the read before. Throws Failure if the bytes can't be had.
  virtual std::size_t read(i64 position, u8* out, std::size_t size) = 0;
};

}  // namespace orv::host
