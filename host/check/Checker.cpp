#include "host/check/Checker.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "host/flv/FlvNames.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

constexpr u64 kMetadataTags = 20;        // Players look for metadata among the first tags.
constexpr u32 kKeyFrameMs = 10'000;      // A farther seek is felt.
constexpr double kIndexTolerance = 0.5;  // Seconds.
constexpr i64 kProgressBytes = 1 << 20;

Code codeOf(const Break& gap) {
  switch (gap.kind) {
    case BreakKind::junk:
      return gap.isTail ? Code::junkBehind : Code::junk;
    case BreakKind::zeros:
      return gap.isTail ? Code::junkBehind : Code::zeros;
    case BreakKind::damagedTag:
      return Code::damagedTag;
    case BreakKind::secondHeader:
      return Code::secondHeader;
    case BreakKind::tornTail:
      break;
  }
  return Code::tornTail;
}

}  // namespace

void Checker::run(const ProgressSink& onProgress) {
  checkHeader();
  i64 shown = 0;
  while (const auto step = walker_.next()) {
    if (const auto* const tag = std::get_if<WalkedTag>(&*step)) {
      noteTag(*tag);
    } else {
      noteBreak(std::get<Break>(*step));
    }
    if (walker_.position() - shown < kProgressBytes) continue;
    shown = walker_.position();
    onProgress(shown);
  }
  if (facts_.isEmpty()) return findings_.add(Code::noTags, "no whole tag");
  times_.finish();
  checkFlags();
  checkClaims();
}

void Checker::checkHeader() {
  const auto& header = walker_.header();
  if (!header) return findings_.add(Code::noHeader, "does not start with an FLV header", 0);
  if (header->version != kVersion) {
    findings_.add(Code::headerVersion, fmt::format("version {}", header->version), kVersionPosition);
  }
  if (header->size != flv::kFileHeaderSize) {
    findings_.add(Code::headerSize, fmt::format("claims {} bytes", header->size), flv::kHeaderSizePosition);
  }
  if (header->size == flv::kFileHeaderSize && header->firstField != 0) {
    findings_.add(Code::firstSizeField, fmt::format("is {}", header->firstField), flv::kFileHeaderSize);
  }
}

void Checker::noteBreak(const Break& gap) {
  const char* const what = gap.kind == BreakKind::zeros ? "zeros" : "bytes";
  findings_.add(codeOf(gap), fmt::format("{} {}, up to byte {}", gap.to - gap.from, what, gap.to), gap.from,
                facts_.isEmpty() ? std::nullopt : std::optional(facts_.lastTime));
}

void Checker::noteTag(const WalkedTag& tag) {
  const auto head = mediaHead(tag.tag);
  if (!head && tag.tag.isData() && !metadata_ && facts_.tagCount() < kMetadataTags) noteMetadata(tag);
  checkSizeField(tag);
  checkType(tag);
  times_.note(tag);
  if (head) checkMedia(tag, *head);
  noteIndexed(tag, head);
  facts_.note(tag.tag, head);
  if (observer_) observer_(tag.tag, head);
}

void Checker::checkSizeField(const WalkedTag& tag) {
  if (tag.hasTrueSizeField()) return;
  const u32 size = tag.tag.size + flv::kTagHeaderSize;
  add(Code::sizeField, tag,
      tag.sizeField ? fmt::format("{} instead of {}", *tag.sizeField, size)
                    : "cut off by the end of the file");
}

void Checker::checkType(const WalkedTag& tag) {
  const Tag& t = tag.tag;
  if (t.streamId != 0) add(Code::streamId, tag, fmt::format("stream id {}", t.streamId));
  if (t.plainType() == flv::kTypeAggregate) return add(Code::aggregate, tag, fmt::format("{} bytes", t.size));
  if (!isKnownType(t.type) || t.type != (t.type & (flv::kTypeMask | flv::kFilterBit))) {
    return add(Code::unknownType, tag, fmt::format("type {}", t.type));
  }
  if (t.isEncrypted()) add(Code::encrypted, tag, fmt::format("type {}", t.type));
  if (t.size == 0 && (t.isAudio() || t.isVideo())) add(Code::emptyTag, tag, tagTypeName(t.type));
}

void Checker::checkMedia(const WalkedTag& tag, const MediaHead& head) {
  bool& isSetUp = head.isVideo ? videoIsSetUp_ : audioIsSetUp_;
  const StreamFacts::Kind& kind = facts_.kindOf(tag.tag);
  if (kind.codec && head.codec && kind.codec != head.codec) {
    add(Code::codecChange, tag, codecText(tag.tag));
  }
  const bool isFirst = kind.tags == 0;
  if (isFirst && (!head.codec || !(head.isVideo ? videoCodecName : audioCodecName)(*head.codec))) {
    add(Code::unknownCodec, tag, codecText(tag.tag));
  }
  if (head.isSetup()) isSetUp = true;
  if (head.packet == Packet::frames && head.needsSetup() && !isSetUp) {
    add(Code::noSetup, tag, codecText(tag.tag));
    isSetUp = true;
  }
  if (head.isVideo && head.packet == Packet::frames) checkKeyFrame(tag, head);
}

void Checker::checkKeyFrame(const WalkedTag& tag, const MediaHead& head) {
  const u32 time = tag.tag.time;
  if (!head.isKeyFrame) {
    if (!keyFrameTime_ && !isWithoutKeyFrame_) {
      add(Code::noKeyFrame, tag, "the first frame of video is not a key frame");
      isWithoutKeyFrame_ = true;
    }
    return;
  }
  if (keyFrameTime_ && time > *keyFrameTime_ && time - *keyFrameTime_ > kKeyFrameMs) {
    add(Code::keyFrameDistance, tag, fmt::format("{} ms after the one before", time - *keyFrameTime_));
  }
  keyFrameTime_ = time;
}

void Checker::noteMetadata(const WalkedTag& tag) {
  metadata_ = Metadata::read(tag.tag);
  if (!metadata_) return;
  metadataPosition_ = tag.position;
  if (metadata_->isTorn()) add(Code::metadataUnreadable, tag, fmt::format("{} bytes", tag.tag.size));
  index_ = metadata_->keyFrames();
  std::ranges::sort(index_, {}, &KeyFrame::position);
}

// Entries for set-up records are good as well: players read on from there to the key frame.
void Checker::noteIndexed(const WalkedTag& tag, const std::optional<MediaHead>& head) {
  for (; indexed_ < index_.size() && index_[indexed_].position <= tag.position; ++indexed_) {
    const KeyFrame& entry = index_[indexed_];
    const bool isHit = entry.position == tag.position && head && head->hasKeyMark;
    const double distance = std::abs(entry.seconds - tag.tag.time / 1000.0);
    if (!isHit || !(distance <= kIndexTolerance)) reportBeside(entry);
  }
}

void Checker::reportBeside(const KeyFrame& entry) {
  findings_.add(Code::indexBeside, fmt::format("no key frame of {} s at this position", entry.seconds),
                entry.position);
}

void Checker::checkFlags() {
  const auto& header = walker_.header();
  if (!header) return;
  const u8 flags =
      static_cast<u8>((facts_.audio.tags ? kFlagAudio : 0) | (facts_.video.tags ? kFlagVideo : 0));
  if ((header->flags & (kFlagAudio | kFlagVideo)) == flags) return;
  findings_.add(Code::headerFlags,
                fmt::format("say {}; the tags: {}", flagsText(header->flags), flagsText(flags)),
                flv::kTypeFlagsPosition);
}

void Checker::checkClaims() {
  for (; indexed_ < index_.size(); ++indexed_) reportBeside(index_[indexed_]);
  if (!metadata_) return findings_.add(Code::noMetadata, "no onMetaData among the first tags");
  for (const TrueValue& truth : trueMetadata(facts_, fileSize())) {
    const KTData& claim = metadata_->find(truth.key);
    if (claim.type() == KTData::Undefined) continue;
    const bool isNumber = claim.type() == KTData::Number;
    const double claimed = isNumber ? claim.toDouble() : claim.toBool() ? 1 : 0;
    const bool hasForm = isNumber || (truth.isFlag && claim.type() == KTData::Boolean);
    if (hasForm && std::abs(claimed - truth.value) <= truth.tolerance) continue;
    const std::string said = hasForm ? fmt::format("{}", claimed) : claim.typeName();
    findings_.add(Code::metadataWrong, fmt::format("{} is {}, not {}", truth.key, truth.value, said),
                  metadataPosition_);
  }
}

}  // namespace orv::host
