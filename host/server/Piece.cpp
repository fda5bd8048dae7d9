#include "host/server/Piece.h"

namespace orv::host {

void Piece::add(const Tag& tag) {
  const std::size_t at = bytes.size();
  marks.push_back({at, tag.time});
  bytes.resize(at + tag.size + flv::kTagOverhead);
  u8* const out = bytes.data() + at;
  flv::writeTagHeader(out, tag.type, tag.size, tag.time, tag.streamId);
  std::copy_n(tag.data, tag.size, out + flv::kTagHeaderSize);
  flv::writeU32(out + flv::kTagHeaderSize + tag.size, tag.size + flv::kTagHeaderSize);
}

PiecePtr PieceCache::find(const Key& key) {
  const std::lock_guard lock(mutex_);
  const auto place = entries_.find(key);
  ++(place == entries_.end() ? misses_ : hits_);
  if (place == entries_.end()) return nullptr;
  ages_.splice(ages_.begin(), ages_, place->second.age);
  return place->second.piece;
}

void PieceCache::keep(const Key& key, PiecePtr piece) {
  const std::lock_guard lock(mutex_);
  if (const auto old = entries_.find(key); old != entries_.end()) drop(old);
  memory_ += piece->memory();
  entries_[key] = {std::move(piece), ages_.insert(ages_.begin(), key)};
  while (memory_ > budget_) drop(entries_.find(ages_.back()));
}

void PieceCache::drop(std::map<Key, Entry>::iterator entry) {
  memory_ -= entry->second.piece->memory();
  ages_.erase(entry->second.age);
  entries_.erase(entry);
}

void PieceCache::forget(u64 file) {
  const std::lock_guard lock(mutex_);
  while (true) {
    const auto entry = entries_.lower_bound({file, 0});
    if (entry == entries_.end() || entry->first.first != file) return;
    drop(entry);
  }
}

std::size_t PieceCache::memory() const {
  const std::lock_guard lock(mutex_);
  return memory_;
}
u64 PieceCache::hits() const {
  const std::lock_guard lock(mutex_);
  return hits_;
}
u64 PieceCache::misses() const {
  const std::lock_guard lock(mutex_);
  return misses_;
}

}  // namespace orv::host
