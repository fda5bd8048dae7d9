// The codec set-up records that are valid at a place of a stream.

#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "host/flv/MediaHead.h"

namespace orv::host {

// Keeps the last record of each kind of medium and codec, within limits that no encoder gets near.
class CodecSetups {
 public:
  using Key = std::pair<bool, CodecId>;  // Whether it is sound; the codec.
  static constexpr u32 kMostSize = 1 << 20;
  static constexpr std::size_t kMostKinds = 32;

  // None for what isn't a set-up record, or is one beyond any use.
  static std::optional<Key> keyOf(const Tag& tag) {
    const auto head = mediaHead(tag);
    if (!head || !head->isSetup() || tag.size > kMostSize) return std::nullopt;
    return Key{tag.isAudio(), head->codec.value_or(0)};
  }

  // Takes a tag of the stream; keeps a copy if it is a set-up record. Returns whether it is one that says
  // something else than the one of its kind before.
  bool note(const Tag& tag) {
    const auto key = keyOf(tag);
    if (!key || (!has(*key) && kept_.size() >= kMostKinds)) return false;
    const auto old = kept_.find(*key);
    const bool isSame = old != kept_.end() && holdsSame(old->second.view(), tag);
    kept_.insert_or_assign(*key, OwnedTag(tag));
    return !isSame;
  }
  // Takes from `older`, which comes earlier in the stream, what is missing here.
  void addOlder(const CodecSetups& older) { kept_.insert(older.kept_.begin(), older.kept_.end()); }
  bool has(const Key& key) const { return kept_.contains(key); }
  template <class Keys>
  bool hasAll(const Keys& keys) const {
    return std::all_of(keys.begin(), keys.end(), [this](const Key& key) { return has(key); });
  }
  // Returns them, video first.
  std::vector<OwnedTag> tags() const {
    std::vector<OwnedTag> list;
    list.reserve(kept_.size());
    for (const auto& [key, tag] : kept_) list.push_back(tag);
    return list;
  }
  std::vector<Key> keys() const {
    std::vector<Key> list;
    list.reserve(kept_.size());
    for (const auto& [key, tag] : kept_) list.push_back(key);
    return list;
  }

 private:
  static bool holdsSame(const Tag& a, const Tag& b) {
    return a.size == b.size && std::equal(a.data, a.data + a.size, b.data);
  }

  std::map<Key, OwnedTag> kept_;
};

}  // namespace orv::host
