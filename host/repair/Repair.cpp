#include "host/repair/Repair.h"

#include <stdexcept>

#include "host/flv/FlvNames.h"
#include "host/flv/FlvWriter.h"
#include "host/repair/MetadataBuilder.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

// A tag has room for some 900,000 entries; fewer are enough to seek by. More are thinned out.
constexpr std::size_t kMostKeyFrames = 200'000;
// Larger metadata hold an index at best, which is made anew.
constexpr u32 kLargestMetadata = 4 << 20;

// By position, one for each time, evenly thinned out. A set-up record stands for the key frame behind it: a
// player that starts there gets both.
class KeyFrameList {
 public:
  void note(const KeyFrame& entry) {
    if (seen_ > 0 && entry.seconds == lastSeconds_) return;
    lastSeconds_ = entry.seconds;
    if (seen_++ % stride_ != 0) return;
    if (entries_.size() == kMostKeyFrames) thinOut();
    entries_.push_back(entry);
  }
  std::vector<KeyFrame> shiftedBy(i64 distance) const {
    std::vector<KeyFrame> shifted = entries_;
    for (KeyFrame& entry : shifted) entry.position += distance;
    return shifted;
  }

 private:
  void thinOut() {
    for (std::size_t i = 0; i < entries_.size() / 2; ++i) entries_[i] = entries_[2 * i];
    entries_.resize(entries_.size() / 2);
    stride_ *= 2;
  }

  std::vector<KeyFrame> entries_;
  u64 seen_ = 0;
  u64 stride_ = 1;
  double lastSeconds_ = 0;
};

// What one pass learns of the output. Positions count from behind the metadata.
struct Knowledge {
  StreamFacts facts;
  KeyFrameList keyFrames;
  i64 size = 0;  // Of the tags, but for the metadata.

  void note(const Tag& tag) {
    const auto head = mediaHead(tag);
    if (head && head->hasKeyMark) keyFrames.note({size, tag.time / 1000.0});
    facts.note(tag, head);
    size += tag.size + flv::kTagOverhead;
  }
};

i64 fileSize(const Knowledge& known, std::size_t metadataSize) {
  return i64{flv::kFirstTagPosition} + static_cast<i64>(metadataSize) + flv::kTagOverhead + known.size;
}

// The truth includes the length of the very message that states it: a figure's length doesn't depend on it.
std::vector<u8> metadataFor(const Metadata* old, const Knowledge& known, bool withIndex, std::size_t room) {
  std::vector<KeyFrame> index = withIndex ? known.keyFrames.shiftedBy(0) : std::vector<KeyFrame>();
  const std::size_t size = buildMetadata(old, trueMetadata(known.facts, 0), index, room).size();
  const i64 whole = fileSize(known, size);
  if (withIndex) index = known.keyFrames.shiftedBy(whole - known.size);
  return buildMetadata(old, trueMetadata(known.facts, whole), index, room);
}

std::optional<Metadata> readOld(const Tag* tag) {
  if (!tag || tag->size > kLargestMetadata) return std::nullopt;
  return Metadata::read(*tag);
}

class Learner final : public RepairedTags::Sink {
 public:
  Knowledge known;
  std::optional<Metadata> old;

  void begin(const Tag* metadata, const std::vector<OwnedTag>&) override { old = readOld(metadata); }
  void tag(const Tag& tag) override { known.note(tag); }
};

u8 flagsOf(const StreamFacts& facts) {
  return static_cast<u8>((facts.audio.tags ? kFlagAudio : 0) | (facts.video.tags ? kFlagVideo : 0));
}

// Writes the tags. What isn't known beforehand, it puts right at the end if it can.
class Writer final : public RepairedTags::Sink {
 public:
  Writer(OutputFile& out, const Knowledge* before, bool withIndex, u8 claimedFlags)
      : out_(out), writer_(out), before_(before), withIndex_(withIndex), claimedFlags_(claimedFlags) {}

  void begin(const Tag* metadata, const std::vector<OwnedTag>& first) override {
    old_ = readOld(metadata);
    const std::vector<u8> payload = firstMetadata(first);
    metadataSize_ = payload.size();
    writer_.header(before_ ? flagsOf(before_->facts) : claimedFlags_);
    writer_.tag({flv::kTypeDataAmf0, 0, 0, payload.data(), static_cast<u32>(payload.size())});
  }
  void tag(const Tag& tag) override {
    known_.note(tag);
    writer_.tag(tag);
  }
  void finish() {
    if (!before_ && out_.isFile()) {
      const std::vector<u8> payload = metadataFor(metadata(), known_, false, metadataSize_);
      if (payload.size() != metadataSize_) throw std::logic_error("the metadata outgrew its room");
      out_.patch(flv::kFirstTagPosition + flv::kTagHeaderSize, payload.data(), payload.size());
    }
    writer_.finish();
  }
  const Knowledge& known() const { return known_; }

 private:
  const Metadata* metadata() const { return old_ ? &*old_ : nullptr; }

  std::vector<u8> firstMetadata(const std::vector<OwnedTag>& first) {
    if (before_) return metadataFor(metadata(), *before_, withIndex_, 0);
    if (out_.isFile()) return buildMetadata(metadata(), everyTrueValue(), {});
    Knowledge early;
    for (const OwnedTag& tag : first) early.note(tag.view());
    return buildMetadata(nullptr, lastingValues(trueMetadata(early.facts, std::nullopt)), {});
  }

  OutputFile& out_;
  FlvWriter writer_;
  const Knowledge* const before_;  // Null if this is the only pass.
  const bool withIndex_;
  const u8 claimedFlags_;
  std::optional<Metadata> old_;
  std::size_t metadataSize_ = 0;
  Knowledge known_;
};

Learner learn(ByteSource& source, const RepairRules& rules, const std::function<void(i64)>& onProgress) {
  RepairedTags tags(source, rules);
  Learner learner;
  tags.run(learner, onProgress);
  return learner;
}

}  // namespace

RepairResult repair(ByteSource& source, OutputFile& out, const RepairJob& job,
                    const std::function<void(i64)>& onProgress) {
  const bool canGoBack = source.size() >= 0;
  std::optional<Learner> learner;
  if (canGoBack && (job.keyFrames || !out.isFile())) learner = learn(source, job.rules, onProgress);

  RepairedTags tags(source, job.rules);
  constexpr u8 kBoth = kFlagAudio | kFlagVideo;
  const u8 claimed = tags.header() ? tags.header()->flags & kBoth : kBoth;
  Writer writer(out, learner ? &learner->known : nullptr, job.keyFrames, claimed);
  tags.run(writer, onProgress);
  if (writer.known().facts.isEmpty()) throw fileFault(source.name() + ": holds no whole tag but metadata");
  writer.finish();
  return {writer.known().facts, tags.losses()};
}

}  // namespace orv::host
