#include "host/flv/FlvReader.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/flv/FileFault.h"

namespace orv::host {

namespace {

// Type 22 is an aggregate; no higher one is known. Bits 6 and 7 are never set.
bool isTagType(u8 typeByte) {
  return (typeByte & ~flv::kFilterBit) <= flv::kTypeAggregate;
}

// Some writers leave the field 0, and some leave the header's 11 bytes out of it. Players take both.
bool isSizeField(u32 field, u32 dataSize) {
  return field == dataSize + flv::kTagHeaderSize || field == dataSize || field == 0;
}

}  // namespace

bool FlvReader::feed(const u8* data, std::size_t size) {
  while (size > 0 && fault_.empty()) {
    const u64 missing = step_ == Step::gap ? wanted_ : wanted_ - pending_.size();
    const std::size_t taken = static_cast<std::size_t>(std::min<u64>(missing, size));
    if (step_ == Step::gap) {
      wanted_ -= taken;
    } else {
      pending_.insert(pending_.end(), data, data + taken);
    }
    position_ += taken;
    data += taken;
    size -= taken;
    if (taken == missing) complete();
  }
  return fault_.empty();
}

void FlvReader::complete() {
  switch (step_) {
    case Step::header:
      return completeHeader();
    case Step::gap:
      return want(Step::tagHeader, flv::kTagHeaderSize);
    case Step::tagHeader:
      return completeTagHeader();
    case Step::tagBody:
      return completeTag();
  }
}

void FlvReader::completeHeader() {
  fault_ = explainHeader(pending_);
  const u32 size = flv::readU32(pending_.data() + flv::kHeaderSizePosition);
  if (fault_.empty() && size < flv::kFileHeaderSize) {
    fault_ = fmt::format("has a header that claims {} bytes", size);
  }
  pending_.clear();
  want(Step::gap, u64{size} - flv::kFileHeaderSize + flv::kSizeFieldSize);
}

void FlvReader::completeTagHeader() {
  const flv::TagHeader header{pending_.data()};
  if (!isTagType(header.typeByte())) {
    fault_ = fmt::format("is damaged: no tag starts at byte {} (type {})", position_ - flv::kTagHeaderSize,
                         header.typeByte());
  }
  want(Step::tagBody, header.dataSize() + flv::kTagOverhead);
}

void FlvReader::completeTag() {
  const flv::TagHeader header{pending_.data()};
  const u32 size = header.dataSize();
  const u8* const data = pending_.data() + flv::kTagHeaderSize;
  const u32 field = flv::readU32(data + size);
  if (isSizeField(field, size)) {
    handler_(Tag{header.typeByte(), header.time(), header.streamId(), data, size});
  } else {
    fault_ = fmt::format("is damaged: the tag at byte {} has {} bytes, and {} behind it in its size field",
                         position_ - pending_.size(), size + flv::kTagHeaderSize, field);
  }
  pending_.clear();
  want(Step::tagHeader, flv::kTagHeaderSize);
}

std::string FlvReader::explainEnd() const {
  if (step_ == Step::header) return explainHeader(pending_);
  if (step_ == Step::gap && wanted_ > flv::kSizeFieldSize) return "ends inside its header";
  if (pending_.empty()) return {};
  return fmt::format("ends inside a tag; {} bytes of it came and are left out", pending_.size());
}

}  // namespace orv::host
