#include "host/repair/RepairedTags.h"

#include "host/flv/FlvNames.h"
#include "host/flv/MetadataFacts.h"

namespace orv::host {

namespace {

constexpr char kMetadataName[] = "onMetaData";
constexpr std::size_t kMostWaiting = 20;
constexpr std::size_t kMostWaitingBytes = std::size_t{1} << 20;

bool isUnknown(const Tag& tag) {
  return !isKnownType(tag.type) && tag.plainType() != flv::kTypeAggregate;
}

}  // namespace

void RepairedTags::run(Sink& sink, const std::function<void(i64)>& onProgress) {
  while (const auto step = walker_.next()) {
    if (const auto* const gap = std::get_if<Break>(&*step)) {
      note(*gap);
      continue;
    }
    Tag tag = std::get<WalkedTag>(*step).tag;
    tag.streamId = 0;
    if (isUnknown(tag)) {
      ++losses_.unknownTypes;
      if (rules_.dropUnknown) continue;
    }
    if (rules_.fixTimes) tag.time = times_.fix(tag);
    take(sink, tag);
    onProgress(walker_.position());
  }
  settle(sink);
}

void RepairedTags::note(const Break& gap) {
  ++losses_.breaks;
  losses_.bytes += gap.to - gap.from;
  if (gap.kind == BreakKind::secondHeader) times_.startPart();
}

void RepairedTags::take(Sink& sink, const Tag& tag) {
  if (isSettled_) return sink.tag(tag);
  if (!metadata_ && tag.isData() && Metadata::nameOf(tag) == kMetadataName) {
    metadata_.emplace(tag);
    return;
  }
  if (waiting_.size() == kMostWaiting || waitingBytes_ + tag.size > kMostWaitingBytes) {
    settle(sink);
    return sink.tag(tag);
  }
  waiting_.emplace_back(tag);
  waitingBytes_ += tag.size;
}

void RepairedTags::settle(Sink& sink) {
  if (isSettled_) return;
  isSettled_ = true;
  const std::optional<Tag> metadata = metadata_ ? std::optional(metadata_->view()) : std::nullopt;
  sink.begin(metadata ? &*metadata : nullptr, waiting_);
  for (const OwnedTag& tag : waiting_) sink.tag(tag.view());
  waiting_ = {};
  metadata_.reset();
}

}  // namespace orv::host
