// The bytes around a frame search, kept page by page.
//
// A search walks back byte by byte, and each candidate may point far ahead or behind. Every page of the file
// is read once a search, whatever order hostile bytes ask for it in. What the pages can't serve (the end of
// the file, a disk that fails) is read through a plain search buffer, so that it ends as such a read always
// ends.

#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "util/autofilebuffer.h"

namespace orv::flv {

// Where the frame checks take their bytes from.
class FrameSource {
 public:
  // Bytes that came. A shortfall throws orv::util::FileReadException if `raise` is set.
  virtual u32 read(i64 position, u8* data, u32 size, bool raise) = 0;

 protected:
  ~FrameSource() = default;
};

// Straight from a read cache, centred.
class BufferSource : public FrameSource {
 public:
  BufferSource(autofilebuffer& buffer, int fd) : buffer_(buffer), fd_(fd) {}
  u32 read(i64 position, u8* data, u32 size, bool raise) override {
    return buffer_.readAt(fd_, position, data, size, false, ORV_READ_HERE, !raise, autofilebuffer::centred);
  }

 private:
  autofilebuffer& buffer_;
  int fd_;
};

class SearchWindow : public FrameSource {
 public:
  // Bytes of the file in a row, from `start`.
  struct View {
    i64 start = 0;
    const u8* bytes = nullptr;
    u32 size = 0;
  };

  // A search that starts at `origin`, which falls into the middle of its page. Borrows both; reads `pageSize`
  // bytes at a time through `file`, whose block stays in place.
  SearchWindow(autofilebuffer& file, IFileService* service, int fd, i64 origin, u32 pageSize);

  // The page that holds `position`, perhaps too short to reach it. Good until the next call of this object.
  View view(i64 position);
  u32 read(i64 position, u8* data, u32 size, bool raise) override;

 private:
  struct Page {
    i64 index = -1;
    i64 start = 0;
    u32 size = 0;
    std::unique_ptr<u8[]> bytes;
  };

  const Page& pageAt(i64 position);
  void load(Page& page, i64 index);
  autofilebuffer& plainBuffer();

  autofilebuffer& file_;
  IFileService* service_;
  int fd_;
  i64 origin_;
  u32 pageSize_;
  i64 stride_;  // From one page's start to the next; the overlap lets a tag header lie in one page.
  i64 base_;    // Start of page 1.
  std::vector<Page> pages_;
  std::optional<autofilebuffer> plain_;
};

}  // namespace orv::flv
