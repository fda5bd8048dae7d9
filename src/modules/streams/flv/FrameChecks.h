// Which bytes are a tag: the checks of one candidate.

#pragma once

#include "modules/streams/flv/FrameRecord.h"
#include "modules/streams/flv/FrameSource.h"
#include "modules/streams/flv/FrameTypes.h"
#include "server/FLVTag.h"

namespace orv::flv {

// What the checks go by, beside the bytes.
struct FrameLimits {
  i64 firstTag;             // Position of the file's first tag.
  i64 dataEnd;              // No tag ends behind it.
  const FrameTypes& types;  // Type bytes of frames, unmasked.
};

// A candidate stands if it, its successor and its two predecessors agree about their sizes: four tags where
// the file has that many. Positions may come near the largest one: limits are compared by differences, which
// can't overflow.
class FrameChecks {
 public:
  explicit FrameChecks(const FrameLimits& limits) : limits_(limits) {}

  const FrameLimits& limits() const { return limits_; }

  // The tag's own header, and whether a tag of the size in front of it could begin inside the file. A short
  // read is a no.
  bool readFrameHeader(FrameSource& source, i64 position, FrameRecord* frame) const;
  // The sizes of the tag and of its successor. A short read throws orv::util::FileReadException.
  bool checkForward(FrameSource& source, i64 position) const;
  // The sizes of the two tags in front. A short read throws orv::util::FileReadException.
  bool checkBackward(FrameSource& source, i64 position) const;
  // All three.
  bool validateFrame(FrameSource& source, i64 position, FrameRecord* frame) const;

  // Returns whether the checks could pass, by the bytes of a candidate alone.
  bool couldBeFrame(const TagHeader& header, i64 position) const {
    return limits_.types.test(header.typeByte()) &&
           i64{header.dataSize()} + kTagOverhead <= limits_.dataEnd - position;
  }
  // The same for the size field in front of it: no more than a tag's size, and no tag from before the first
  // one.
  bool couldFollow(u32 previousSize, i64 position) const {
    if (previousSize == 0) return true;
    return previousSize >= kTagHeaderSize && previousSize <= kMaxTagDataSize + kTagHeaderSize &&
           position >= limits_.firstTag + previousSize + kSizeFieldSize;
  }

 private:
  FrameLimits limits_;
};

}  // namespace orv::flv
