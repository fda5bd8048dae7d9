// The shared module as a host sees it, and one stream of it as a test likes to drive it.

#pragma once

#include <memory>
#include <optional>

#include "modules/streams/contract/IQVStreamAdaptor.h"
#include "support/Holders.h"

namespace orv::test {

// A loaded module; unloads on destruction, so adaptors must go first. Throws std::runtime_error if it can't
// load.
class Module {
 public:
  explicit Module(const char* path);
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module();
  std::unique_ptr<IQVStreamAdaptor> create(IQVStreamContext& context) const;

 private:
  void* library_;
};

// An open stream; closed on destruction.
class Stream {
 public:
  enum Mode : u32 { play = 0, record = 1 };

  Stream(IQVStreamAdaptor& adaptor, const std::string& path, Mode mode = play, void* backup = nullptr);
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() { adaptor.close(handle); }

  explicit operator bool() const { return handle != nullptr; }
  i64 size() { return adaptor.getSize(handle); }
  i64 endPosition() { return adaptor.getEndPosition(handle); }
  u32 duration() { return adaptor.getDuration(handle); }
  u32 type() { return adaptor.getType(handle); }
  std::optional<SegmentBounds> atTime(u32 time);
  std::optional<SegmentBounds> atPosition(i64 position);
  // Every segment from the first byte on, each found behind the end of the one before.
  std::vector<SegmentBounds> walk();
  // Records one message.
  bool stage(u16 messageType, u32 time, const Bytes& data) {
    return adaptor.record(handle, messageType, data.data(), static_cast<u32>(data.size()), time);
  }
  std::optional<SegmentBounds> flush();
  // Of the file's "onMetaData"; empty if there is none.
  Bytes metadata();
  // What reached the holder; `*good` tells the call's result.
  std::vector<Message> load(SegmentBounds bounds, bool* good = nullptr);

  IQVStreamAdaptor& adaptor;
  void* handle = nullptr;
};

}  // namespace orv::test
