#include "support/FileImage.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace orv::test {

void FileImage::readPage(i64 page, u8* out) const {
  if (const auto found = pages_.find(page); found != pages_.end()) {
    std::memcpy(out, found->second.data(), kPage);
    return;
  }
  const i64 start = page * kPage;
  const i64 computed = fill_ ? std::clamp<i64>(filled_ - start, 0, kPage) : 0;
  if (computed > 0) fill_(start, out, static_cast<u32>(computed));
  std::fill(out + computed, out + kPage, u8{0});
}

u32 FileImage::read(i64 position, void* out, u32 size) const {
  if (position < 0 || position >= size_) return 0;
  const u32 count = static_cast<u32>(std::min<i64>(size, size_ - position));
  std::array<u8, kPage> page;
  for (u32 done = 0; done < count;) {
    const i64 at = position + done;
    const u32 offset = static_cast<u32>(at % kPage);
    const u32 part = std::min(kPage - offset, count - done);
    readPage(at / kPage, page.data());
    std::memcpy(static_cast<u8*>(out) + done, page.data() + offset, part);
    done += part;
  }
  return count;
}

void FileImage::write(i64 position, const void* data, u32 size) {
  for (u32 done = 0; done < size;) {
    const i64 at = position + done;
    const u32 offset = static_cast<u32>(at % kPage);
    const u32 part = std::min(kPage - offset, size - done);
    auto [page, isNew] = pages_.try_emplace(at / kPage);
    if (isNew) {
      Bytes content(kPage);
      pages_.erase(page);
      readPage(at / kPage, content.data());
      page = pages_.emplace(at / kPage, std::move(content)).first;
    }
    std::memcpy(page->second.data() + offset, static_cast<const u8*>(data) + done, part);
    done += part;
  }
  size_ = std::max(size_, position + size);
}

void FileImage::resize(i64 size) {
  pages_.erase(pages_.upper_bound(size / kPage), pages_.end());
  if (const auto last = pages_.find(size / kPage); last != pages_.end())
    std::fill(last->second.begin() + size % kPage, last->second.end(), u8{0});
  filled_ = std::min(filled_, size);
  size_ = size;
}

Bytes FileImage::bytes(i64 position, u32 size) const {
  Bytes out(size);
  out.resize(read(position, out.data(), size));
  return out;
}

}  // namespace orv::test
