// The bytes of a test file.

#pragma once

#include <functional>
#include <map>
#include <vector>

#include "platform/Types.h"

namespace orv::test {

using Bytes = std::vector<u8>;

// Keeps only the pages that were written; the rest is computed when it is read, so a file of 64 GiB costs
// nothing. Growth adds zeros, and bytes that were cut off never come back.
class FileImage {
 public:
  // Writes the file's bytes from `position` on to `out`.
  using Fill = std::function<void(i64 position, u8* out, u32 size)>;

  FileImage() = default;
  FileImage(const Bytes& bytes) { write(0, bytes.data(), static_cast<u32>(bytes.size())); }
  FileImage(i64 size, Fill fill) : size_(size), filled_(size), fill_(std::move(fill)) {}

  i64 size() const { return size_; }
  // The bytes that are there, at most `size`; 0 at the end and behind it.
  u32 read(i64 position, void* out, u32 size) const;
  void write(i64 position, const void* data, u32 size);
  void resize(i64 size);
  void append(const Bytes& bytes) { write(size_, bytes.data(), static_cast<u32>(bytes.size())); }
  Bytes bytes(i64 position, u32 size) const;
  Bytes bytes() const { return bytes(0, static_cast<u32>(size_)); }

 private:
  static constexpr u32 kPage = 16384;

  void readPage(i64 page, u8* out) const;

  i64 size_ = 0;
  i64 filled_ = 0;  // Below it, what isn't in a page comes from `fill_`.
  Fill fill_;
  std::map<i64, Bytes> pages_;
};

}  // namespace orv::test
