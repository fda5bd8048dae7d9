// Delivery: a run of tags, read into one block and handed over one by one or packed into aggregate messages.

#include <algorithm>
#include <new>
#include <optional>

#include "modules/streams/flv/KTFLVData.h"
#include "server/FLVTag.h"
#include "util/WarmBlocks.h"

using orv::util::FileReadException;
using orv::util::WarmBlock;

namespace orv::flv {
namespace {

constexpr u8 kHighestType = 21;
// Each tag is read together with the size field in front of it.
constexpr u32 kLeadSize = kSizeFieldSize + kTagHeaderSize;

}  // namespace

// One load. The work block becomes a copy of the file's bytes, field by field as they stand, so that a row of
// tags in it is an aggregate message already: tags that go out alone or are dropped leave the place to their
// successor.
class SegmentLoader {
 public:
  // The run is [start, stop); `work` holds its bytes, the size field in front of it, and one more size field.
  SegmentLoader(KTFLVData& stream, int fd, i64 start, i64 stop, u8* work, ISegmentHolder* holder)
      : stream_(stream), fd_(fd), current_(start), stop_(stop), work_(work), holder_(holder) {
    capacity_ = static_cast<u32>(stop - start) + kSizeFieldSize;
  }

  // Throws orv::util::FileReadException on a short read and on tags that don't follow from one another.
  void run() {
    while (current_ < stop_) handleTag();
    if (pendingSize_ != 0) deliverAggregate();
  }

 private:
  void handleTag();
  void read(i64 position, u8* data, u32 size);
  bool isDropped(const u8* tag, u32 size) const;
  void handOver(u8* tag, u32 size, u32 time);
  void join(u32 size, u32 time);
  void deliverAggregate();

  KTFLVData& stream_;
  const int fd_;
  i64 current_;  // The tag being read.
  const i64 stop_;
  u8* const work_;
  u32 capacity_;
  ISegmentHolder* const holder_;
  u32 expectedSize_ = 0;   // What the next size field must hold; 0: not known.
  u32 writeOffset_ = 0;    // Where in the work block the next tag lands.
  u32 pendingSize_ = 0;    // Bytes of the aggregate being collected.
  u32 pendingTime_ = 0;    // Time of its first tag.
  u32 lastEntrySize_ = 0;  // What the trailing field of its last tag must hold.
};

void SegmentLoader::handleTag() {
  if (capacity_ - writeOffset_ < kLeadSize) throw FileReadException();
  u8* const lead = work_ + writeOffset_;
  read(current_ - kSizeFieldSize, lead, kLeadSize);
  if (expectedSize_ != 0 && readU32(lead) != expectedSize_) throw FileReadException();

  u8* const tag = lead + kSizeFieldSize;
  const TagHeader header{tag};
  if ((header.typeByte() & ~kFilterBit) > kHighestType) throw FileReadException();
  const u32 size = header.dataSize();
  const u32 time = header.time();
  expectedSize_ = size + kTagHeaderSize;
  const i64 next = current_ + size + kTagOverhead;
  if (next > stream_.dataEnd) throw FileReadException();
  if (size > capacity_ - writeOffset_ - kLeadSize) throw FileReadException();
  if (size > 0) read(current_ + kTagHeaderSize, tag + kTagHeaderSize, size);

  if (!isDropped(tag, size)) handOver(tag, size, time);
  current_ = next;
}

void SegmentLoader::read(i64 position, u8* data, u32 size) {
  stream_.fileBuffer.readAt(fd_, position, data, size, false, ORV_READ_HERE, false, autofilebuffer::forward);
}

// A video tag whose frame type is 0 is none that the format knows.
bool SegmentLoader::isDropped(const u8* tag, u32 size) const {
  return (tag[0] & ~kFilterBit) == kTypeVideo && size > 0 && tag[kTagHeaderSize] >> 4 == 0;
}

void SegmentLoader::handOver(u8* tag, u32 size, u32 time) {
  if (stream_.enableAggMsgs && time != 0) {
    join(size, time);
    return;
  }
  // Head records go to the host as media contexts, not here.
  if (time == 0 && stream_.sidePositions.count(current_) != 0) return;
  holder_->onMessage(tag[0], tag + kTagHeaderSize, size, time);
}

void SegmentLoader::join(u32 size, u32 time) {
  if (pendingSize_ == 0) pendingTime_ = time;
  pendingSize_ += size + kTagOverhead;
  writeOffset_ += size + kTagOverhead;
  lastEntrySize_ = size + kTagHeaderSize;
  if (pendingSize_ >= stream_.maxAggMsgSize) deliverAggregate();
}

void SegmentLoader::deliverAggregate() {
  // The last entry's trailing field has not been read: it would come with the next tag.
  writeU32(work_ + writeOffset_, lastEntrySize_);
  const u8* const entries = work_ + writeOffset_ + kSizeFieldSize - pendingSize_;
  const u32 size = pendingSize_;
  pendingSize_ = 0;
  holder_->onMessage(kTypeAggregate, entries, size, pendingTime_);
}

namespace {

// The read cache's block is given back at the end of each load, on every way out.
class BlockRelease {
 public:
  explicit BlockRelease(autofilebuffer& buffer) : buffer_(buffer) {}
  ~BlockRelease() { buffer_.release(); }
  BlockRelease(const BlockRelease&) = delete;
  BlockRelease& operator=(const BlockRelease&) = delete;

 private:
  autofilebuffer& buffer_;
};

}  // namespace

bool KTFLVData::loadSegment(const SegmentBounds& bounds, ISegmentHolder* holder) {
  const ReadHandle file(fileService(), narrowPath().c_str());
  if (!file.isOpen()) return false;
  const BlockRelease idle(fileBuffer);
  const i64 start = std::max(bounds.startPosition, firstFrame.position);
  const i64 stop = bounds.endPosition < dataEnd ? bounds.endPosition + 1 : dataEnd;
  if (start >= stop) return true;
  constexpr i64 kMaxRun = 0xFFFFFFFF - 2 * kSizeFieldSize;
  if (stop - start > kMaxRun) return false;
  std::optional<WarmBlock> work;
  try {
    work.emplace(static_cast<std::size_t>(stop - start) + 2 * kSizeFieldSize);
  } catch (const std::bad_alloc&) {
    return false;
  }
  try {
    SegmentLoader(*this, file.fd(), start, stop, work->data(), holder).run();
  } catch (const FileReadException&) {
    return false;
  }
  return true;
}

}  // namespace orv::flv
