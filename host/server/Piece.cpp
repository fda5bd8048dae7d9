#include "host/server/Piece.h"

namespace orv::host {

void Piece::add(const Tag& tag) {
  const std::size_t at = bytes.size();
  marks.push_back({at, tag.time});
  u8 header[flv::kTagHeaderSize], field[flv::kSizeFieldSize];
  flv::writeTagHeader(header, tag.type, tag.size, tag.time, tag.streamId);
  flv::writeU32(field, tag.size + flv::kTagHeaderSize);
  bytes.insert(bytes.end(), header, std::end(header));
  bytes.insert(bytes.end(), tag.data, tag.data + tag.size);
  bytes.insert(bytes.end(), field, std::end(field));
}

PiecePtr PieceCache::find(const Key& key) {
  const std::lock_guard lock(mutex_);
  const auto place = entries_.find(key);
  ++(place == entries_.end() ? misses_ : hits_);
  if (place == entries_.end()) return nullptr;
  ages_.splice(ages_.begin(), ages_, place->second.age);
  return place->second.piece;
}

bool PieceCache::holds(const Key& key) const {
  const std::lock_guard lock(mutex_);
  return entries_.contains(key);
}

void PieceCache::keep(const Key& key, PiecePtr piece, const std::weak_ptr<PieceOwner>& owner,
                      std::size_t overhead) {
  std::vector<std::pair<std::weak_ptr<PieceOwner>, i64>> freed;
  {
    const std::lock_guard lock(mutex_);
    const auto free = [&](std::map<Key, Entry>::iterator entry) {
      freed.emplace_back(entry->second.owner, entry->first.second);
      drop(entry);
    };
    if (const auto old = entries_.find(key); old != entries_.end()) free(old);
    overhead_ += overhead - std::exchange(overheads_[key.first], overhead);
    memory_ += piece->memory();
    entries_[key] = {std::move(piece), owner, ages_.insert(ages_.begin(), key)};
    while (!ages_.empty() && memory_ + overhead_ > budget_) free(entries_.find(ages_.back()));
  }
  for (const auto& [weak, position] : freed) {
    if (const auto one = weak.lock()) one->onFreed(position);
  }
}

void PieceCache::drop(std::map<Key, Entry>::iterator entry) {
  memory_ -= entry->second.piece->memory();
  ages_.erase(entry->second.age);
  entries_.erase(entry);
}

std::vector<i64> PieceCache::forget(u64 file) {
  std::vector<i64> freed;
  const std::lock_guard lock(mutex_);
  if (const auto place = overheads_.find(file); place != overheads_.end()) {
    overhead_ -= place->second;
    overheads_.erase(place);
  }
  while (true) {
    const auto entry = entries_.lower_bound({file, 0});
    if (entry == entries_.end() || entry->first.first != file) return freed;
    freed.push_back(entry->first.second);
    drop(entry);
  }
}

std::size_t PieceCache::memory() const {
  const std::lock_guard lock(mutex_);
  return memory_;
}
std::size_t PieceCache::overhead() const {
  const std::lock_guard lock(mutex_);
  return overhead_;
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
