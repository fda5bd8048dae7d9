// The codec set-up records that are valid at a place of a stream.

#pragma once

#include <map>
#include <utility>
#include <vector>

#include "host/flv/MediaHead.h"

namespace orv::host {

// Keeps the last record of each kind of medium and codec.
class CodecSetups {
 public:
  // Takes a tag of the stream; keeps a copy if it is a set-up record.
  void note(const Tag& tag) {
    const auto head = mediaHead(tag);
    if (head && head->isSetup())
      kept_.insert_or_assign(Key{tag.isAudio(), head->codec.value_or(0)}, OwnedTag(tag));
  }
  // Takes from `older`, which comes earlier in the stream, what is missing here.
  void addOlder(const CodecSetups& older) { kept_.insert(older.kept_.begin(), older.kept_.end()); }
  std::size_t count() const { return kept_.size(); }
  // Returns them, video first.
  std::vector<OwnedTag> tags() const {
    std::vector<OwnedTag> list;
    list.reserve(kept_.size());
    for (const auto& [key, tag] : kept_) list.push_back(tag);
    return list;
  }

 private:
  using Key = std::pair<bool, CodecId>;  // Whether it is sound; the codec.
  std::map<Key, OwnedTag> kept_;
};

}  // namespace orv::host
