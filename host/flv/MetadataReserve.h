// Room in a stream's "onMetaData" for what a flush brings up to date.
//
// The module changes the values of four keys in place, "duration", "videocodecid", "audiocodecid" and
// "canSeekToEnd", and only if the message keeps its length by that. Live encoders leave some of them out.

#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "host/flv/Tags.h"

namespace orv::host {

// Whether `tag` is an "onMetaData" that the module takes for the stream's.
bool isMetadata(const Tag& tag);

// The payload of `tag`, an "onMetaData", with all four keys, of a kind that keeps its length when they
// change. What else it has stays, in the form in which the module will write it. None if the module can't
// rewrite the message: it is torn, has no container, or more behind it. Keys that would soon be false are
// dropped: "filesize", "keyframes", and those of the last tag and key frame.
std::optional<std::vector<u8>> withReservedKeys(const Tag& tag);
// The payload of a message of type 18 that holds the four keys alone.
std::vector<u8> reservedKeysAlone();

// Stands in front of a recording. Tags go through as they come, but for the first few of time 0: while these
// may still bring an "onMetaData" they wait for it, so that one can be put first where the stream has none.
class MetadataReserve {
 public:
  using Sink = std::function<void(const Tag&)>;
  explicit MetadataReserve(Sink sink) : sink_(std::move(sink)) {}

  void take(const Tag& tag);
  // Lets go of what waits. A stream that has brought nothing at all stays empty.
  void finish();

 private:
  void settleWith(const Tag& metadata);
  void settleWithout();
  void release();

  const Sink sink_;
  bool settled_ = false;
  std::vector<OwnedTag> waiting_;
  std::size_t waitingBytes_ = 0;
};

}  // namespace orv::host
