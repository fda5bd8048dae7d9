// The pooled texts of one character width: a bucket for each length, so that texts of different lengths never
// contend. Part of the string pool; nothing else uses it.

#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <new>
#include <string_view>

#include "platform/Fork.h"
#include "util/KTStringPool.h"
#include "util/KTThreadOnlyMutex.h"

namespace orv::util::hidden {

inline void setTextHeader(void* block, i32 length, KTStringPool::Kind kind) {
  const u32 header = __builtin_bswap32(static_cast<u32>(length) << 8 | kind);
  __builtin_memcpy(static_cast<u8*>(block) - kTextHeaderSize, &header, kTextHeaderSize);
}

// Room for `capacity` characters, the NUL at `length` included; the text itself is left to the caller.
template <class Char>
Char* newTextBlock(u32 capacity, i32 length, KTStringPool::Kind kind) {
  const std::size_t bytes = kTextHeaderSize + std::size_t{capacity} * sizeof(Char);
  Char* const block = reinterpret_cast<Char*>(static_cast<u8*>(::operator new(bytes)) + kTextHeaderSize);
  setTextHeader(block, length, kind);
  block[length] = 0;
  return block;
}

template <class Char>
void deleteTextBlock(Char* block) {
  ::operator delete(reinterpret_cast<u8*>(block) - kTextHeaderSize);
}

}  // namespace orv::util::hidden

template <class Char>
class KTStringShelf {
 public:
  using Text = std::basic_string_view<Char>;

  explicit KTStringShelf(i32 limit)
      : pageCount_(pageOf(limit) + 1), pages_(new std::atomic<Page*>[pageCount_]()) {}
  KTStringShelf(const KTStringShelf&) = delete;
  KTStringShelf& operator=(const KTStringShelf&) = delete;

  // Returns the one block of this text, with one more holder.
  Char* take(Text text) {
    Bucket& bucket = bucketOf(text.size());
    const KTMutexGuard guard(bucket.lock);
    auto entry = bucket.holders.find(text);
    if (entry == bucket.holders.end()) {
      entry = add(bucket, text);
    } else {
      ++bucket.counts.hits;
    }
    ++entry->second;
    return const_cast<Char*>(entry->first.data());
  }

  // One holder less. The block stays, also without any: a text that comes back finds it.
  void drop(const Char* block) {
    const auto length = static_cast<std::size_t>(KTStringPool::length(block));
    Bucket& bucket = bucketOf(length);
    const KTMutexGuard guard(bucket.lock);
    const auto entry = bucket.holders.find(Text(block, length));
    if (entry != bucket.holders.end() && entry->second > 0) --entry->second;
  }

  i64 sweep() {
    i64 freed = 0;
    for (std::size_t i = 0; i < pageCount_; ++i) {
      Page* const page = pages_[i].load(std::memory_order_acquire);
      if (!page) continue;
      for (Bucket& bucket : *page) freed += sweepBucket(bucket);
    }
    return freed;
  }

  KTStringPoolCounts counts(i32 length) {
    Bucket& bucket = bucketOf(static_cast<std::size_t>(length));
    const KTMutexGuard guard(bucket.lock);
    return bucket.counts;
  }

 private:
  struct Bucket {
    Bucket() { lock.setSpinCount(1000); }  // A bucket is held for moments only.
    KTThreadOnlyMutex lock{true};
    orv::platform::HeldOverForks held{*lock.nativeHandle(), orv::platform::HeldOverForks::kProcess};
    KTStringPoolCounts counts;    // Under lock, as is the map.
    std::map<Text, u64> holders;  // The keys point into the blocks.
  };

  // Buckets come a page at a time, when a length of theirs is first asked for: a high limit costs little.
  static constexpr std::size_t kPageSize = 64;
  using Page = std::array<Bucket, kPageSize>;
  static constexpr std::size_t pageOf(i64 length) { return static_cast<std::size_t>(length) / kPageSize; }

  Bucket& bucketOf(std::size_t length) {
    std::atomic<Page*>& place = pages_[length / kPageSize];
    Page* page = place.load(std::memory_order_acquire);
    if (!page) page = makePage(place);
    return (*page)[length % kPageSize];
  }

  // Two threads may both make the page; the one that comes second throws its own away.
  static Page* makePage(std::atomic<Page*>& place) {
    auto made = std::make_unique<Page>();
    Page* current = nullptr;
    if (!place.compare_exchange_strong(current, made.get(), std::memory_order_acq_rel)) return current;
    return made.release();
  }

  auto add(Bucket& bucket, Text text) {
    const auto length = static_cast<i32>(text.size());
    Char* const block =
        orv::util::hidden::newTextBlock<Char>(static_cast<u32>(length) + 1, length, KTStringPool::kPooled);
    text.copy(block, text.size());
    try {
      const auto entry = bucket.holders.emplace(Text(block, text.size()), 0).first;
      ++bucket.counts.misses;
      bucket.counts.pooledCharacters += text.size();
      return entry;
    } catch (...) {
      orv::util::hidden::deleteTextBlock(block);
      throw;
    }
  }

  static i64 sweepBucket(Bucket& bucket) {
    const KTMutexGuard guard(bucket.lock);
    i64 freed = 0;
    for (auto entry = bucket.holders.begin(); entry != bucket.holders.end();) {
      if (entry->second > 0) {
        ++entry;
        continue;
      }
      const Text text = entry->first;
      entry = bucket.holders.erase(entry);
      freed += static_cast<i64>(text.size());
      orv::util::hidden::deleteTextBlock(const_cast<Char*>(text.data()));
    }
    bucket.counts.pooledCharacters -= static_cast<u64>(freed);
    return freed;
  }

  std::size_t pageCount_;
  std::unique_ptr<std::atomic<Page*>[]> pages_;
};
