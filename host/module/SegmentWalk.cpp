#include "host/module/SegmentWalk.h"

#include <fmt/format.h>

#include "host/files/ModulePath.h"
#include "host/flv/FlvNames.h"
#include "host/text/Console.h"
#include "server/FLVTag.h"

namespace orv::host {

namespace {

// Behind damage every place that is tried may cost the module a long search. So the first few MiB are tried
// closely, and what lies farther in steps that double: a long run of rubbish ends the walk soon.
constexpr i64 kProbeStep = 128 * 1024;
constexpr int kCloseProbes = 64;

// A segment runs from the tag that holds the start of one such block to the tag that holds the next.
constexpr i64 kBlock = 0x40000;
// Where a segment begins with a tag of this size, so few may follow it that their headers are the short way.
constexpr i64 kLongTag = 32 * 1024;
constexpr int kMostTags = 16;

struct TagPlace {
  u32 time;
  i64 end;  // Of the tag, its size field included.
};

// The tag at `position`, if it stands whole in front of `end`.
std::optional<TagPlace> tagAt(const ReadOnlyFile& file, i64 position, i64 end) {
  u8 bytes[flv::kTagHeaderSize];
  if (file.read(position, bytes, sizeof bytes) < sizeof bytes) return std::nullopt;
  const flv::TagHeader header{bytes};
  const i64 field = position + flv::kTagHeaderSize + header.dataSize();
  if (!isKnownType(header.typeByte()) || field + flv::kSizeFieldSize > end) return std::nullopt;
  u8 size[flv::kSizeFieldSize];
  if (file.read(field, size, sizeof size) < sizeof size) return std::nullopt;
  if (flv::readU32(size) != header.dataSize() + flv::kTagHeaderSize) return std::nullopt;
  return TagPlace{header.time(), field + flv::kSizeFieldSize};
}

}  // namespace

std::optional<SegmentBounds> SegmentWalk::findAt(i64 position) {
  std::optional<SegmentBounds> bounds = stream_.segmentAtPosition(position);
  // Each segment must end behind the place that was asked for, or the walk would never end.
  if (!bounds || bounds->endPosition < position || bounds->startPosition > position) return std::nullopt;
  return bounds;
}

std::optional<SegmentBounds> SegmentWalk::next() {
  if (position_ >= end_) return std::nullopt;
  std::optional<SegmentBounds> bounds = followLongTags();
  if (!bounds) bounds = findAt(position_);
  if (!bounds) bounds = findBehindDamage();
  position_ = bounds ? bounds->endPosition + 1 : end_;
  isAtTag_ = bounds.has_value();
  return bounds;
}

// The segment that begins at position_, as the module would find it. None where short tags make that the long
// way, and where the tags don't follow from one another.
std::optional<SegmentBounds> SegmentWalk::followLongTags() {
  if (ask_ == Ask::module || !isAtTag_ || isRemote(stream_.name())) return std::nullopt;
  if (!file_) file_.emplace(stream_.name());
  const auto first = tagAt(*file_, position_, end_);
  if (!first || first->end - position_ < kLongTag) return std::nullopt;
  const i64 nextBlock = (first->end - 1) / kBlock * kBlock + kBlock;
  TagPlace last = *first;
  for (int tags = 1; tags < kMostTags && last.end < end_; ++tags) {
    const auto tag = tagAt(*file_, last.end, end_);
    if (!tag) return std::nullopt;
    if (tag->end > nextBlock) return SegmentBounds{position_, last.end - 1, first->time, tag->time};
    last = *tag;
  }
  if (last.end != end_) return std::nullopt;
  return SegmentBounds{position_, end_ - 1, first->time, last.time + 1};
}

std::optional<SegmentBounds> SegmentWalk::findBehindDamage() {
  i64 step = kProbeStep;
  int probes = 0;
  for (i64 place = position_ + step; place < end_; place += step) {
    if (const auto bounds = findAt(place); bounds && bounds->startPosition >= position_) {
      if (bounds->startPosition > position_) gaps_.push_back({position_, bounds->startPosition});
      return bounds;
    }
    if (++probes > kCloseProbes) step *= 2;
  }
  gaps_.push_back({position_, end_});
  return std::nullopt;
}

void SegmentWalk::tellGaps() const {
  for (const Gap& gap : gaps_) {
    report(fmt::format("{}: damaged; no segment found between bytes {} and {}", stream_.name(), gap.begin,
                       gap.end - 1));
  }
}

}  // namespace orv::host
