// What a load leaves behind where a file is damaged: it ends at the damage, and drops an aggregate that was
// being collected. The whole tags that stand behind are found by their bytes and loaded one by one.

#pragma once

#include <map>
#include <tuple>
#include <vector>

#include "host/module/Session.h"

namespace orv::host {

// What was delivered of a byte run, to tell the rest from it.
class DeliveredTags {
 public:
  void clear() { keys_.clear(); }
  void note(const Tag& tag) { keys_.push_back(keyOf(tag)); }

 private:
  friend class LostTags;
  using Key = std::tuple<u8, u32, u32>;  // Type, time, size.
  static Key keyOf(const Tag& tag) { return {tag.type, tag.time, tag.size}; }

  std::vector<Key> keys_;
};

class LostTags {
 public:
  // Of the bytes `from` to before `to`.
  LostTags(Stream& stream, i64 from, i64 to) : stream_(stream), from_(from), to_(to) {}

  // Delivers every whole tag of the run that isn't among `delivered` and that the module takes, in the order
  // of the file, with the place of each. Returns their number.
  using Handler = std::function<void(const SegmentBounds& place, const Message& message)>;
  u64 load(const DeliveredTags& delivered, const Handler& handler);

 private:
  Stream& stream_;
  const i64 from_;
  const i64 to_;
};

}  // namespace orv::host
