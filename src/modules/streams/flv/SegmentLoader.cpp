#include "modules/streams/flv/SegmentLoader.h"

#include <new>
#include <optional>

#include "server/FLVTag.h"
#include "util/WarmBlocks.h"

using orv::util::FileReadException;
using orv::util::WarmBlock;

namespace orv::flv {
namespace {

constexpr u8 kHighestType = 21;
// Each tag is read together with the size field in front of it.
constexpr u32 kLeadSize = kSizeFieldSize + kTagHeaderSize;

// A video tag whose frame type is 0 is none that the format knows.
bool isDropped(const u8* tag, u32 size) {
  return (tag[0] & ~kFilterBit) == kTypeVideo && size > 0 && tag[kTagHeaderSize] >> 4 == 0;
}

}  // namespace

bool SegmentLoader::load(i64 start, i64 stop) {
  if (start >= stop) return true;
  constexpr i64 kMaxRun = 0xFFFFFFFF - 2 * kSizeFieldSize;
  if (stop - start > kMaxRun) return false;
  capacity_ = static_cast<u32>(stop - start) + kSizeFieldSize;
  current_ = start;
  std::optional<WarmBlock> work;
  try {
    work.emplace(std::size_t{capacity_} + kSizeFieldSize);
  } catch (const std::bad_alloc&) {
    return false;
  }
  work_ = work->data();
  try {
    while (current_ < stop) handleTag();
    if (pendingSize_ != 0) deliverAggregate();
  } catch (const FileReadException&) {
    return false;
  }
  return true;
}

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
  if (i64{size} + kTagOverhead > rules_.dataEnd - current_) throw FileReadException();
  if (size > capacity_ - writeOffset_ - kLeadSize) throw FileReadException();
  if (size > 0) read(current_ + kTagHeaderSize, tag + kTagHeaderSize, size);

  if (!isDropped(tag, size)) handOver(tag, size, time);
  current_ += i64{size} + kTagOverhead;
}

void SegmentLoader::read(i64 position, u8* data, u32 size) {
  file_.readExactly(fd_, position, data, size, ORV_READ_HERE);
}

void SegmentLoader::handOver(u8* tag, u32 size, u32 time) {
  if (rules_.aggregates && time != 0) {
    join(size, time);
    return;
  }
  if (time == 0 && rules_.headRecords.isSidePosition(current_)) return;
  holder_->onMessage(tag[0], tag + kTagHeaderSize, size, time);
}

void SegmentLoader::join(u32 size, u32 time) {
  if (pendingSize_ == 0) pendingTime_ = time;
  pendingSize_ += size + kTagOverhead;
  writeOffset_ += size + kTagOverhead;
  lastEntrySize_ = size + kTagHeaderSize;
  if (pendingSize_ >= rules_.maxAggregateSize) deliverAggregate();
}

void SegmentLoader::deliverAggregate() {
  // The last entry's trailing field has not been read: it would come with the next tag.
  writeU32(work_ + writeOffset_, lastEntrySize_);
  const u8* const entries = work_ + writeOffset_ + kSizeFieldSize - pendingSize_;
  const u32 size = pendingSize_;
  pendingSize_ = 0;
  holder_->onMessage(kTypeAggregate, entries, size, pendingTime_);
}

}  // namespace orv::flv
