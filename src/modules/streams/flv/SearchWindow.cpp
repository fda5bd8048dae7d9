#include "modules/streams/flv/SearchWindow.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace orv::flv {
namespace {

// A larger read size only makes the pages of a search larger up to here.
constexpr u32 kMaxPageSize = 0x100000;
// More than the longest read of a frame check.
constexpr u32 kOverlap = 16;
// The farthest that candidates and what they point to lie apart: a search of 16 MiB, and a tag of 16 MiB.
constexpr u32 kReach = 0x2000000;

u32 slotsFor(u32 pageSize) {
  return std::bit_ceil(kReach / (pageSize - kOverlap) + 2);
}

}  // namespace

SearchWindow::SearchWindow(autofilebuffer& file, IFileService* service, int fd, i64 origin, u32 pageSize)
    : file_(file),
      service_(service),
      fd_(fd),
      origin_(origin),
      pageSize_(std::clamp(pageSize, 2 * kOverlap, kMaxPageSize)),
      stride_(pageSize_ - kOverlap),
      base_((origin + stride_ - pageSize_ / 2) % stride_),
      pages_(slotsFor(pageSize_)) {}

SearchWindow::View SearchWindow::view(i64 position) {
  const Page& page = pageAt(position);
  return {page.start, page.bytes.get(), page.size};
}

u32 SearchWindow::read(i64 position, u8* data, u32 size, bool raise) {
  if (position >= 0) {
    const Page& page = pageAt(position);
    const i64 offset = position - page.start;
    if (offset + size <= page.size) {
      std::memcpy(data, page.bytes.get() + offset, size);
      return size;
    }
  }
  return plainBuffer().readAt(fd_, position, data, size, false, ORV_READ_HERE, !raise,
                              autofilebuffer::centred);
}

const SearchWindow::Page& SearchWindow::pageAt(i64 position) {
  const i64 index = (position - base_ + stride_) / stride_;
  Page& page = pages_[static_cast<std::size_t>(index) & (pages_.size() - 1)];
  if (page.index != index) load(page, index);
  return page;
}

void SearchWindow::load(Page& page, i64 index) {
  if (!page.bytes) page.bytes = std::make_unique_for_overwrite<u8[]>(pageSize_);
  const i64 start = base_ + (index - 1) * stride_;  // Below 0 for page 0 alone.
  const PassThroughScope stay(file_);
  page.index = index;
  page.start = std::max<i64>(start, 0);
  const auto wanted = static_cast<u32>(start + pageSize_ - page.start);
  page.size = file_.readAt(fd_, page.start, page.bytes.get(), wanted, true, ORV_READ_HERE, true,
                           autofilebuffer::centred);
}

autofilebuffer& SearchWindow::plainBuffer() {
  if (!plain_) {
    plain_.emplace(pageSize_, service_, &file_);
    plain_->reset(fd_, origin_);
  }
  return *plain_;
}

}  // namespace orv::flv
