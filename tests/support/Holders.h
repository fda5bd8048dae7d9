// Sinks that keep what they are given.

#pragma once

#include "modules/streams/contract/Sinks.h"
#include "support/FileImage.h"

namespace orv::test {

struct Message {
  u16 type;
  u32 time;
  Bytes data;
  bool operator==(const Message&) const = default;
};

class CollectingHolder final : public ISegmentHolder {
 public:
  std::vector<Message> messages;

  void onMessage(unsigned short type, const void* data, u32 size, u32 time) override {
    const auto* const bytes = static_cast<const u8*>(data);
    messages.push_back({type, time, Bytes(bytes, bytes + size)});
  }
  void reserved() override {}
};

// The tags that messages carry, in order: an aggregate gives its entries, any other message itself. A torn
// aggregate throws std::runtime_error.
std::vector<Message> unpack(const std::vector<Message>& messages);

}  // namespace orv::test
