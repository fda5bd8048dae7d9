#include "host/flv/FlvReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/flv/FileFault.h"
#include "host/flv/Walker.h"

namespace orv::host {

namespace {

// A damage that is as long was searched, and its first half can't hold the start of a tag that isn't whole.
constexpr std::size_t kMostLost = 2 * ByteWindow::kMostAtOnce;

class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(const std::vector<u8>& bytes) : bytes_(bytes) {}
  const std::string& name() const override { return name_; }
  i64 size() const override { return static_cast<i64>(bytes_.size()); }
  std::size_t read(i64 position, u8* out, std::size_t size) override {
    const std::size_t at = std::min(static_cast<std::size_t>(position), bytes_.size());
    size = std::min(size, bytes_.size() - at);
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(at), size, out);
    return size;
  }

 private:
  const std::string name_;
  const std::vector<u8>& bytes_;
};

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
    case Step::lost:
      return completeLost();
  }
}

void FlvReader::completeHeader() {
  fault_ = explainHeader(pending_);
  const u32 size = flv::readU32(pending_.data() + flv::kHeaderSizePosition);
  if (fault_.empty() && size < flv::kFileHeaderSize) {
    fault_ = fmt::format("its header claims {} bytes", size);
  }
  pending_.clear();
  want(Step::gap, u64{size} - flv::kFileHeaderSize + flv::kSizeFieldSize);
}

void FlvReader::completeTagHeader() {
  const flv::TagHeader header{pending_.data()};
  if (!isTagType(header.typeByte()) || (onDamage_ && !isPlausibleTagHeader(header))) {
    return goPast(fmt::format("is damaged: no tag starts at byte {} (type {})",
                              position_ - flv::kTagHeaderSize, header.typeByte()));
  }
  want(Step::tagBody, header.dataSize() + flv::kTagOverhead);
}

void FlvReader::completeTag() {
  const flv::TagHeader header{pending_.data()};
  const u32 size = header.dataSize();
  const u8* const data = pending_.data() + flv::kTagHeaderSize;
  const u32 field = flv::readU32(data + size);
  // Where damage is gone past, a walk looks at what follows before it believes any other than the exact size.
  if (!isSizeField(field, size) || (onDamage_ && field != size + flv::kTagHeaderSize)) {
    return goPast(
        fmt::format("is damaged: the tag at byte {} has {} bytes, and {} behind it in its size field",
                    position_ - pending_.size(), size + flv::kTagHeaderSize, field));
  }
  handler_(Tag{header.typeByte(), header.time(), header.streamId(), data, size});
  pending_.clear();
  want(Step::tagHeader, flv::kTagHeaderSize);
}

void FlvReader::goPast(std::string fault) {
  if (!onDamage_) {
    fault_ = std::move(fault);
    return;
  }
  lostFrom_ = position_ - pending_.size();
  want(Step::lost, pending_.size() + flv::kTagHeaderSize);
}

// The search is repeated whenever twice as much is there, so that junk costs no more than its length.
void FlvReader::completeLost() {
  takeFound(flv::kTagHeaderSize);
  if (step_ != Step::lost) return;
  if (pending_.size() >= kMostLost) {
    pending_.erase(pending_.begin(), pending_.end() - static_cast<std::ptrdiff_t>(kMostLost / 2));
  }
  wanted_ = std::min<u64>(2 * pending_.size() + flv::kTagHeaderSize, kMostLost);
}

// Delivers the tags that a walk through what came finds, as far as `beyond` bytes stand behind them: the end
// of what came isn't the stream's, and proves nothing.
void FlvReader::takeFound(std::size_t beyond) {
  std::vector<u8> bytes = std::exchange(pending_, {});
  const u64 start = position_ - bytes.size();
  std::size_t done = 0;
  MemorySource source(bytes);
  Walker walker(source);
  while (const auto step = walker.next()) {
    const auto* const tag = std::get_if<WalkedTag>(&*step);
    if (!tag) continue;
    const auto end = static_cast<std::size_t>(tag->dataEnd()) + flv::kSizeFieldSize;
    if (!tag->sizeField || end + beyond > bytes.size()) break;
    const u64 found = start + static_cast<u64>(tag->position);
    if (found > lostFrom_) onDamage_(lostFrom_, found - lostFrom_);
    handler_(tag->tag);
    done = end;
    lostFrom_ = start + end;
  }
  bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(done));
  pending_ = std::move(bytes);
  if (done > 0) expectTag();
}

// What is pending is the front of a tag, if it looks like one; else it is lost as well.
void FlvReader::expectTag() {
  if (pending_.size() < flv::kTagHeaderSize) return want(Step::tagHeader, flv::kTagHeaderSize);
  const flv::TagHeader header{pending_.data()};
  const u64 size = u64{header.dataSize()} + flv::kTagOverhead;
  if (isPlausibleTagHeader(header) && size > pending_.size()) return want(Step::tagBody, size);
  want(Step::lost, pending_.size() + flv::kTagHeaderSize);
}

// A tag that never became whole may have a size that lies, with sound tags behind its head.
void FlvReader::finish() {
  if (!onDamage_ || (step_ != Step::lost && step_ != Step::tagBody)) return;
  lostFrom_ = step_ == Step::lost ? lostFrom_ : position_ - pending_.size();
  takeFound(0);
}

std::string FlvReader::explainEnd() const {
  if (step_ == Step::header) return explainHeader(pending_);
  if (step_ == Step::gap && wanted_ > flv::kSizeFieldSize) return "ends inside its header";
  if (step_ == Step::lost) {
    return fmt::format("is damaged from byte {} on; {} bytes are left out", lostFrom_, leftOver());
  }
  if (pending_.empty()) return {};
  return fmt::format("ends inside a tag; {} bytes of it came and are left out", leftOver());
}

std::string damageText(const std::string& name, u64 position, u64 size) {
  return fmt::format("{}: damaged; {} bytes from byte {} on are left out", name, size, position);
}

}  // namespace orv::host
