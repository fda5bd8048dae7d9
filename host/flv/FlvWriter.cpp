#include "host/flv/FlvWriter.h"

#include <array>

#include "host/flv/FlvNumbers.h"

namespace orv::host {

void FlvWriter::header(u8 flags) {
  flags_ = flags;
  const auto bytes = fileHeader(flags);
  write(bytes.data(), bytes.size());
}

void FlvWriter::write(const void* data, std::size_t size) {
  out_.write(data, size);
  position_ += static_cast<i64>(size);
}

void FlvWriter::noteKind(const Tag& tag) {
  if (tag.isAudio()) seenFlags_ |= kFlagAudio;
  if (tag.isVideo()) seenFlags_ |= kFlagVideo;
}

void FlvWriter::writeTag(const Tag& tag) {
  std::array<u8, flv::kTagHeaderSize> header;
  flv::writeTagHeader(header.data(), tag.type, tag.size, tag.time, tag.streamId);
  std::array<u8, flv::kSizeFieldSize> trailer;
  flv::writeU32(trailer.data(), tag.size + flv::kTagHeaderSize);
  write(header.data(), header.size());
  write(tag.data, tag.size);
  write(trailer.data(), trailer.size());
}

void FlvWriter::tag(const Tag& tag) {
  completeAggregate();
  noteKind(tag);
  writeTag(tag);
}

void FlvWriter::join(const Tag& entry) {
  const u32 room = flv::kMaxTagDataSize - static_cast<u32>(aggregate_.size());
  if (entry.size + flv::kTagOverhead > room) completeAggregate();
  if (entry.size + flv::kTagOverhead > flv::kMaxTagDataSize) return tag(entry);

  noteKind(entry);
  if (aggregate_.empty()) aggregateTime_ = entry.time;
  const std::size_t at = aggregate_.size();
  aggregate_.resize(at + entry.size + flv::kTagOverhead);
  u8* const bytes = aggregate_.data() + at;
  flv::writeTagHeader(bytes, entry.type, entry.size, entry.time, entry.streamId);
  std::copy_n(entry.data, entry.size, bytes + flv::kTagHeaderSize);
  flv::writeU32(bytes + flv::kTagHeaderSize + entry.size, entry.size + flv::kTagHeaderSize);
}

void FlvWriter::completeAggregate() {
  if (aggregate_.empty()) return;
  writeTag({flv::kTypeAggregate, aggregateTime_, 0, aggregate_.data(), static_cast<u32>(aggregate_.size())});
  aggregate_.clear();
}

void FlvWriter::finish() {
  completeAggregate();
  if (out_.isFile() && seenFlags_ != flags_) out_.patch(flv::kTypeFlagsPosition, &seenFlags_, 1);
  out_.close();
}

}  // namespace orv::host
