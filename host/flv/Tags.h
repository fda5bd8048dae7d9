// Tags and aggregates as the module delivers them.

#pragma once

#include <algorithm>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "modules/streams/contract/Sinks.h"
#include "server/FLVTag.h"

namespace orv::host {

// A tag's content, borrowed for the call.
struct Tag {
  u8 type;  // As it stands in the file, filter bit included.
  u32 time;
  u32 streamId;  // 0 where the module delivered the tag alone: such a message has no stream id.
  const u8* data;
  u32 size;

  // As much of the data as heads and set-up records take. Of large media a walk may hold no more in memory.
  static constexpr u32 kFrontSize = 4096;
  std::span<const u8> front() const { return {data, std::min(size, kFrontSize)}; }

  bool isEncrypted() const { return (type & flv::kFilterBit) != 0; }
  u8 plainType() const { return type & flv::kTypeMask; }
  bool isAudio() const { return plainType() == flv::kTypeAudio; }
  bool isVideo() const { return plainType() == flv::kTypeVideo; }
  bool isData() const { return plainType() == flv::kTypeDataAmf0 || plainType() == flv::kTypeDataAmf3; }
  // A frame of type 0, which the module never delivers.
  bool isEmptyFrame() const { return isVideo() && size > 0 && flv::frameTypeOf(data[0]) == 0; }
  // All but the stream id.
  bool hasContentOf(const Tag& other) const {
    return type == other.type && time == other.time && size == other.size &&
           std::equal(data, data + size, other.data);
  }
};

// A tag that is kept, bytes and all.
class OwnedTag {
 public:
  explicit OwnedTag(const Tag& tag) : tag_(tag), data_(tag.data, tag.data + tag.size) {}
  Tag view() const { return {tag_.type, tag_.time, tag_.streamId, data_.data(), tag_.size}; }

 private:
  Tag tag_;  // But for `data`.
  std::vector<u8> data_;
};

// One message of a load, borrowed for the call.
struct Message {
  u16 type;
  u32 time;
  const u8* data;
  u32 size;
  bool isAggregate() const { return type == flv::kTypeAggregate; }
};

// A message that is kept, bytes and all.
class KeptMessage {
 public:
  explicit KeptMessage(const Message& message)
      : type_(message.type), time_(message.time), data_(message.data, message.data + message.size) {}
  Message view() const { return {type_, time_, data_.data(), static_cast<u32>(data_.size())}; }

 private:
  u16 type_;
  u32 time_;
  std::vector<u8> data_;
};

// Calls `visit`(const Tag&) for each tag that the message carries. False if an aggregate ends inside an
// entry; the entries before it have been visited. The trailing fields aren't read: an aggregate's last one is
// undefined, and others may refer to a tag that was left out.
template <class Visit>
bool forEachTag(const Message& message, Visit visit) {
  if (!message.isAggregate()) {
    visit(Tag{static_cast<u8>(message.type), message.time, 0, message.data, message.size});
    return true;
  }
  const u8* at = message.data;
  u32 left = message.size;
  while (left >= flv::kTagOverhead) {
    const flv::TagHeader header{at};
    const u32 size = header.dataSize();
    if (size > left - flv::kTagOverhead) break;
    visit(Tag{header.typeByte(), header.time(), header.streamId(), at + flv::kTagHeaderSize, size});
    at += size + flv::kTagOverhead;
    left -= size + flv::kTagOverhead;
  }
  return left == 0;
}

// Hands the messages of a load to a function. What the function throws leaves the load.
class MessageHolder final : public ISegmentHolder {
 public:
  using Handler = std::function<void(const Message&)>;
  explicit MessageHolder(Handler handler) : handler_(std::move(handler)) {}

  void onMessage(unsigned short type, const void* data, u32 size, u32 time) override {
    handler_(Message{type, time, static_cast<const u8*>(data), size});
  }
  void reserved() override {}

 private:
  const Handler handler_;
};

// A head record that the module keeps aside as a media context, borrowed for the call.
struct HeadRecord {
  u32 trackId;
  Tag tag;
  i64 position;  // Where the module says that it holds from; -1 for all that it makes itself.
  u32 contextType;
};

class HeadRecordHolder final : public IContextHolder {
 public:
  using Handler = std::function<void(const HeadRecord&)>;
  explicit HeadRecordHolder(Handler handler) : handler_(std::move(handler)) {}

  void onContext(unsigned short messageType, const void* data, u32 size, u32 time, i64 position, u32 trackId,
                 u32 contextType) override {
    const Tag tag{static_cast<u8>(messageType), time, 0, static_cast<const u8*>(data), size};
    handler_({trackId, tag, position, contextType});
  }

 private:
  const Handler handler_;
};

class AllContextsHolder final : public IAllContextHolder {
 public:
  std::vector<u8> bytes;

  void onAllContexts(const void* data, u32 size) override {
    const auto* const begin = static_cast<const u8*>(data);
    bytes.assign(begin, begin + size);
  }
};

}  // namespace orv::host
