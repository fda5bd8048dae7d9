#include "PlayOut.h"

#include <fmt/format.h>

#include "Console.h"
#include "Failure.h"
#include "FlvNames.h"
#include "SegmentWalk.h"
#include "TimeText.h"

namespace orv::host {

namespace {

u8 kindFlags(const Tag& tag) {
  return tag.isAudio() ? kFlagAudio : tag.isVideo() ? kFlagVideo : 0;
}

// What a segment holds for a start at a time: ordinals of tags in the order of delivery.
struct StartCandidates {
  std::optional<u64> keyFrame;
  std::optional<u64> tag;
  bool hasVideo = false;
};

StartCandidates candidatesIn(Stream& stream, const SegmentBounds& bounds, u32 time) {
  StartCandidates found;
  u64 ordinal = 0;
  stream.load(bounds, [&](const Message& message) {
    forEachTag(message, [&](const Tag& tag) {
      found.hasVideo |= tag.isVideo();
      if (tag.time <= time) {
        found.tag = ordinal;
        if (isKeyFrame(tag)) found.keyFrame = ordinal;
      }
      ++ordinal;
    });
  });
  return found;
}

// One play-out in the making.
class Player {
 public:
  Player(Stream& stream, const PlayPlan& plan, FlvWriter* writer, TagVerifier* verifier)
      : stream_(stream), plan_(plan), writer_(writer), verifier_(verifier), skip_(plan.start.skip) {}

  PlayTally run();

 private:
  void sendHead();
  void playSegment(const SegmentBounds& bounds);
  void take(const Message& message);
  void takeTag(const Tag& tag, bool inAggregate);
  void send(const Tag& tag, bool inAggregate);
  void keepCodecSetups();
  void showProgress(i64 position, i64 end);
  bool startsAtFront() const { return plan_.start.position == 0 && plan_.start.skip == 0; }

  Stream& stream_;
  const PlayPlan& plan_;
  FlvWriter* const writer_;
  TagVerifier* const verifier_;
  u64 skip_;
  std::vector<OwnedTag> codecSetups_;
  bool started_ = false;
  Progress progress_;
  PlayTally tally_;
};

PlayTally Player::run() {
  sendHead();
  SegmentWalk walk(stream_, plan_.start.position);
  bool pastEnd = false;
  while (!pastEnd) {
    const std::optional<SegmentBounds> bounds = walk.next();
    if (!bounds) break;
    pastEnd = plan_.end && bounds->startTime >= *plan_.end;
    if (!pastEnd) playSegment(*bounds);
    showProgress(walk.position(), walk.end());
  }
  tally_.isComplete = walk.gaps().empty();
  walk.tellGaps();
  if (tally_.unknownTags > 0) {
    tell(fmt::format("{}: tags of no known type left out: {}", stream_.name(), tally_.unknownTags));
  }
  if (verifier_ && startsAtFront() && walk.isComplete()) verifier_->endFile();
  return tally_;
}

// Loads leave the head records out.
void Player::sendHead() {
  if (!writer_) return;
  stream_.headRecords([&](const HeadRecord& record) {
    if (record.trackId != kTrackControl) writer_->tag(record.tag);
  });
  if (!startsAtFront()) keepCodecSetups();
}

// They stand once, among the first tags of a file; decoders need them wherever playing starts.
void Player::keepCodecSetups() {
  const std::optional<SegmentBounds> first = stream_.segmentAtPosition(0);
  if (!first) return;
  u8 kept = 0;
  stream_.load(*first, [&](const Message& message) {
    forEachTag(message, [&](const Tag& tag) {
      if (!isCodecSetup(tag) || (kept & kindFlags(tag))) return;
      kept |= kindFlags(tag);
      codecSetups_.emplace_back(tag);
    });
  });
}

void Player::playSegment(const SegmentBounds& bounds) {
  ++tally_.segments;
  if (verifier_) verifier_->beginSegment(bounds);
  const bool whole = stream_.load(bounds, [&](const Message& message) { take(message); });
  skip_ = 0;
  if (whole) {
    if (verifier_) verifier_->endSegment();
    return;
  }
  ++tally_.damagedSegments;
  tell(fmt::format("{}: damaged between byte {} and byte {}; what can't be read there is left out",
                   stream_.name(), bounds.startPosition, bounds.endPosition));
}

void Player::take(const Message& message) {
  ++tally_.messages;
  tally_.aggregates += message.isAggregate();
  if (verifier_) verifier_->check(message);
  forEachTag(message, [&](const Tag& tag) { takeTag(tag, message.isAggregate()); });
  if (writer_) writer_->completeAggregate();
}

void Player::takeTag(const Tag& tag, bool inAggregate) {
  PlayTally::Kind& kind = tally_.kinds[tag.type];
  ++kind.tags;
  kind.bytes += tag.size;
  if (skip_ > 0) {
    --skip_;
  } else if (!plan_.end || tag.time < *plan_.end) {
    send(tag, inAggregate);
  }
}

void Player::send(const Tag& tag, bool inAggregate) {
  // The module delivers whatever lies in the chain of tags, just before a damage often rubbish.
  if (!isKnownType(tag.type)) {
    ++tally_.unknownTags;
    return;
  }
  if (!started_) {
    started_ = true;
    tally_.firstTime = tag.time;
    for (const OwnedTag& kept : codecSetups_) {
      const Tag setup = kept.view();
      writer_->tag({setup.type, tag.time, 0, setup.data, setup.size});
    }
  }
  tally_.lastTime = tag.time;
  ++tally_.sent.tags;
  tally_.sent.bytes += tag.size;
  if (!writer_) return;
  if (inAggregate && plan_.aggregates) {
    writer_->join(tag);
  } else {
    writer_->tag(tag);
  }
}

void Player::showProgress(i64 position, i64 end) {
  if (!progress_.isDue()) return;
  progress_.show(
      fmt::format("{}  {} tags  {}%", timeText(tally_.lastTime), tally_.sent.tags, position * 100 / end));
}

}  // namespace

PlayTally::Kind PlayTally::total() const {
  Kind sum;
  for (const auto& [type, kind] : kinds) {
    sum.tags += kind.tags;
    sum.bytes += kind.bytes;
  }
  return sum;
}

PlayStart findPlayStart(Stream& stream, u32 time) {
  std::optional<SegmentBounds> bounds = stream.segmentAtTime(time);
  if (!bounds) {
    const u32 last = stream.duration();
    if (time > last) {
      throw fileFault(
          fmt::format("{}: ends at {}, before {}", stream.name(), timeText(last), timeText(time)));
    }
    const std::optional<SegmentBounds> first = stream.segmentAtPosition(0);
    if (first && time < first->startTime) return {};
    throw fileFault(fmt::format("{}: {} can't be found in it", stream.name(), timeText(time)));
  }

  StartCandidates found = candidatesIn(stream, *bounds, time);
  const PlayStart nearest{bounds->startPosition, found.tag.value_or(0)};
  bool hasVideo = found.hasVideo;
  if (!hasVideo && !(stream.typeFlags() & kFlagVideo)) return nearest;
  while (!found.keyFrame && bounds->startPosition > 0) {
    const i64 start = bounds->startPosition;
    bounds = stream.segmentAtPosition(start - 1);
    if (!bounds || bounds->startPosition >= start) return nearest;
    found = candidatesIn(stream, *bounds, time);
    hasVideo |= found.hasVideo;
  }
  if (found.keyFrame) return {bounds->startPosition, *found.keyFrame};
  return hasVideo ? PlayStart{} : nearest;
}

u8 expectedFlags(Stream& stream) {
  u8 flags = static_cast<u8>(stream.typeFlags() & (kFlagAudio | kFlagVideo));
  SegmentWalk walk(stream);
  bool isFirst = true;
  for (auto bounds = walk.next(); bounds && (isFirst || flags == 0); bounds = walk.next()) {
    stream.load(*bounds, [&](const Message& message) {
      forEachTag(message, [&](const Tag& tag) { flags |= kindFlags(tag); });
    });
    isFirst = false;
  }
  return flags;
}

PlayTally playOut(Stream& stream, const PlayPlan& plan, FlvWriter* writer, TagVerifier* verifier) {
  return Player(stream, plan, writer, verifier).run();
}

}  // namespace orv::host
