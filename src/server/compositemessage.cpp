#include "server/compositemessage.h"

#include <algorithm>
#include <cstring>

#include "util/KTThrowable.h"

namespace orv {

namespace {

constexpr u32 kLeastEntry = 12;
constexpr u32 kEmptyRangeTime = 0xFFFFFFFF;
constexpr u8 kAmf0Data = 1;
constexpr u8 kAmf3Data = 2;

}  // namespace

SubMessage::SubMessage(CompositeMessage* root, u32 place, u32 start, const u8* headerBytes,
                       const KTMemoryPtr& payload)
    : parent(root), offset(start), index(place) {
  std::memcpy(&header, headerBytes, sizeof header);
  memory = payload;
}

i32 SubMessage::addRef() {
  return parent->addRef();
}

i32 SubMessage::release() {
  return parent->release();
}

KTMemoryPtr CompositeMessage::PartialMemory::blockUnder(const KTMemoryPtr& source) {
  const auto* const part = dynamic_cast<const PartialMemory*>(source.get());
  return part ? part->source_ : source;
}

CompositeMessage::PartialMemory::PartialMemory(const KTMemoryPtr& source, u32 offset, u32 size)
    : source_(blockUnder(source)) {
  data = source->data + offset;
  capacity = size;
  length.store(static_cast<i32>(size));
}

CompositeMessage::ProxyMemory::ProxyMemory(const KTMemoryPtr& source, u8* first, u32 size) : source_(source) {
  data = first;
  capacity = size;
  length.store(static_cast<i32>(size));
}

CompositeMessage::CompositeMessage(const KTMemoryPtr& block, u32 size) {
  KT_ASSERT(block.get() != nullptr);
  memory = block;
  const u32 usable = block.get() ? std::min(size, block->capacity) : 0;
  if (block.get()) block->length.store(static_cast<i32>(usable));
  parse(usable);
  firstEntry_ = entries_.begin();
  endEntry_ = entries_.end();
  setAggregateHeader(usable);
  sumUp();
}

CompositeMessage::CompositeMessage(CompositeMessage* whole, const KTMemoryPtr& block, Iterator first,
                                   Iterator last)
    : parent_(whole), firstEntry_(first), endEntry_(last) {
  memory = block;
  setAggregateHeader(block->capacity);
  sumUp();
}

CompositeMessage::~CompositeMessage() {
  CompositeMessagePtr above = parent_;
  parent_ = nullptr;
  while (above.get() && above->getRefCount() == 1) {
    const CompositeMessagePtr next = above->parent_;
    above->parent_ = nullptr;
    above = next;
  }
}

CompositeMessage* CompositeMessage::fromMessage(const Message& message) {
  KT_ASSERT(message.type() == flv::kTypeAggregate);
  return new CompositeMessage(message.memory, message.blockLength());
}

void CompositeMessage::parse(u32 size) {
  for (u64 offset = 0; offset < size;) {  // The last entry's trailing field may be missing.
    const u32 entrySize = appendEntry(static_cast<u32>(offset), size);
    if (entrySize == 0) return;
    offset += entrySize;
  }
}

// The size of the entry at `offset`, trailing field included; 0 when there is no sound one.
u32 CompositeMessage::appendEntry(u32 offset, u32 size) {
  const u32 left = size - offset;
  KT_ASSERT(left >= kLeastEntry);
  if (left < kLeastEntry) return 0;
  u8* const start = memory->data + offset;
  const u32 dataSize = flv::TagHeader{start}.dataSize();
  if (dataSize > left - flv::kTagHeaderSize) return 0;
  const KTMemoryPtr payload(new ProxyMemory(memory, start + flv::kTagHeaderSize, dataSize));
  const u32 index = static_cast<u32>(entries_.size());
  entries_.push_back(std::make_unique<SubMessage>(this, index, offset, start, payload));
  entries_.back()->takeTypeBit();
  return dataSize + flv::kTagOverhead;
}

void CompositeMessage::setAggregateHeader(u32 length) {
  clearHeader();
  setType(flv::kTypeAggregate);
  flv::writeU24(header.length, length);
  if (firstEntry_ != endEntry_) setHeaderTime((*firstEntry_)->time());
}

void CompositeMessage::sumUp() {
  KT_ASSERT(firstEntry_ != endEntry_);
  for (Iterator entry = firstEntry_; entry != endEntry_; ++entry) {
    ++entryCount_;
    typeCounts_.increment((*entry)->type());
    noteContent(**entry);
  }
}

// An empty payload counts as sound format 0 or video codec 0.
void CompositeMessage::noteContent(const SubMessage& entry) {
  const u8 first = entry.payloadSize() ? entry.payload()[0] : 0;
  switch (entry.type()) {
    case flv::kTypeAudio:
      audioFormats_ = static_cast<u16>(audioFormats_ | audioFormatBit(first));
      break;
    case flv::kTypeVideo:
      videoCodecs_ = static_cast<u16>(videoCodecs_ | 1U << flv::videoCodecOf(first));
      break;
    case flv::kTypeDataAmf0:
      dataKinds_ |= kAmf0Data;
      break;
    case flv::kTypeDataAmf3:
      dataKinds_ |= kAmf3Data;
      break;
    default:
      break;
  }
}

u32 CompositeMessage::lastTime() const {
  return firstEntry_ == endEntry_ ? kEmptyRangeTime : (*std::prev(endEntry_))->time();
}

void CompositeMessage::splitAtTime(u32 time, CompositeMessagePtr& firstPart,
                                   CompositeMessagePtr& secondPart) {
  const auto reached = [time](const auto& entry) { return entry->time() >= time; };
  splitAt(std::find_if(firstEntry_, endEntry_, reached), firstPart, secondPart);
}

void CompositeMessage::splitAtIndex(u32 index, CompositeMessagePtr& firstPart,
                                    CompositeMessagePtr& secondPart) {
  splitAt(firstEntry_ + std::min(index, entryCount_), firstPart, secondPart);
}

void CompositeMessage::splitAt(Iterator entry, CompositeMessagePtr& firstPart,
                               CompositeMessagePtr& secondPart) {
  const CompositeMessagePtr whole(this);  // One of the two may hold the last count of this message.
  if (entry == firstEntry_) {
    firstPart = nullptr;
    secondPart = whole;
  } else if (entry == endEntry_) {
    firstPart = whole;
    secondPart = nullptr;
  } else {
    firstPart = before(entry);
    secondPart = from(entry);
  }
}

// The part of this message in front of an entry inside it, as a view.
CompositeMessage* CompositeMessage::before(Iterator entry) {
  const KTMemoryPtr block(new PartialMemory(memory, 0, offsetOf(entry)));
  return new CompositeMessage(this, block, firstEntry_, entry);
}

// The part from that entry on.
CompositeMessage* CompositeMessage::from(Iterator entry) {
  const u32 offset = offsetOf(entry);
  const u32 size = std::min(blockLength(), memory->capacity);  // Others may have changed the block's length.
  const KTMemoryPtr block(new PartialMemory(memory, offset, size > offset ? size - offset : 0));
  return new CompositeMessage(this, block, entry, endEntry_);
}

// In this message's payload; `entry` is none but the first or one behind it.
u32 CompositeMessage::offsetOf(Iterator entry) const {
  return (*entry)->offset - (*firstEntry_)->offset;
}

CompositeMessage* CompositeMessage::followingPart() {
  for (const CompositeMessage* view = this; view->parent_.get(); view = view->parent_.get()) {
    if (view->endEntry_ != view->parent_->endEntry_) return view->parent_->from(view->endEntry_);
  }
  return nullptr;
}

CompositeMessage* CompositeMessage::precedingPart() {
  for (const CompositeMessage* view = this; view->parent_.get(); view = view->parent_.get()) {
    if (view->firstEntry_ != view->parent_->firstEntry_) return view->parent_->before(view->firstEntry_);
  }
  return nullptr;
}

}  // namespace orv
