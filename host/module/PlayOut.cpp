#include "host/module/PlayOut.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/flv/ClipMetadata.h"
#include "host/flv/FlvNames.h"
#include "host/module/LostTags.h"
#include "host/module/SegmentWalk.h"
#include "host/module/SetupSearch.h"
#include "host/text/Console.h"
#include "host/text/Failure.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

u8 kindFlags(const Tag& tag) {
  return tag.isAudio() ? kFlagAudio : tag.isVideo() ? kFlagVideo : 0;
}

// Calls `visit`(tag, ordinal) for each tag of a segment, in the order of delivery.
template <class Visit>
void forEachTagIn(Stream& stream, const SegmentBounds& bounds, Visit visit) {
  u64 ordinal = 0;
  stream.load(bounds, [&](const Message& message) {
    forEachTag(message, [&](const Tag& tag) { visit(tag, ordinal++); });
  });
}

// What a segment holds for a start at a time.
struct StartCandidates {
  std::optional<PlayStart> keyFrame;
  std::optional<PlayStart> tag;
  bool hasVideo = false;
};

StartCandidates candidatesIn(Stream& stream, const SegmentBounds& bounds, u32 time) {
  StartCandidates found;
  forEachTagIn(stream, bounds, [&](const Tag& tag, u64 ordinal) {
    found.hasVideo |= tag.isVideo();
    if (tag.time > time) return;
    found.tag = {bounds.startPosition, ordinal, tag.time};
    if (isKeyFrame(tag)) found.keyFrame = found.tag;
  });
  return found;
}

struct KeyFrameSearch {
  std::optional<PlayStart> keyFrame;
  bool sawVideo = false;
  bool reachedFront = false;  // False where damage ended the search.
};

// From `bounds` backwards.
KeyFrameSearch searchKeyFrame(Stream& stream, SegmentBounds bounds, u32 time) {
  KeyFrameSearch search;
  for (;;) {
    const StartCandidates found = candidatesIn(stream, bounds, time);
    search.keyFrame = found.keyFrame;
    search.sawVideo |= found.hasVideo;
    search.reachedFront = bounds.startPosition <= 0;
    if (search.keyFrame) return search;
    const auto before = stream.segmentBefore(bounds);
    if (!before) return search;
    bounds = *before;
  }
}

// The time of the first medium among the first segment's tags.
u32 firstTimeIn(Stream& stream) {
  std::optional<u32> time;
  if (const auto first = stream.segmentAtPosition(0)) {
    forEachTagIn(stream, *first, [&](const Tag& tag, u64) {
      if (!time && (tag.isAudio() || tag.isVideo())) time = tag.time;
    });
  }
  return time.value_or(0);
}

// The time of the last tag before `end`, as far as a search finds it.
u32 lastTimeBefore(Stream& stream, std::optional<u32> end) {
  const u32 duration = stream.duration();
  if (!end || *end > duration) return duration;
  const auto bounds = stream.segmentAtTime(*end - 1);
  const auto last = bounds ? candidatesIn(stream, *bounds, *end - 1).tag : std::nullopt;
  return last ? last->time : *end - 1;
}

// One play-out in the making.
class Player {
 public:
  Player(Stream& stream, const PlayPlan& plan, FlvWriter* writer, TagVerifier* verifier)
      : stream_(stream), plan_(plan), writer_(writer), verifier_(verifier), skip_(plan.start.skip) {}

  PlayTally run();

 private:
  void sendHead();
  void sendMetadata(const Tag& tag);
  void completeMetadata();
  void playSegment(const SegmentBounds& bounds);
  void playLost(i64 from, i64 to);
  void take(const Message& message);
  void takeTag(const Tag& tag, bool inAggregate);
  void send(const Tag& tag, bool inAggregate);
  void showProgress(i64 position, i64 end);
  bool startsAtFront() const { return plan_.start.position == 0 && plan_.start.skip == 0; }

  Stream& stream_;
  const PlayPlan& plan_;
  FlvWriter* const writer_;
  TagVerifier* const verifier_;
  u64 skip_;
  DeliveredTags delivered_;  // Of the segment.
  std::vector<OwnedTag> codecSetups_;
  std::optional<OwnedTag> metadata_;  // Of a piece, to be completed at the end.
  i64 metadataPosition_ = 0;
  bool started_ = false;
  Progress progress_;
  PlayTally tally_;
};

PlayTally Player::run() {
  sendHead();
  SegmentWalk walk(stream_, plan_.start.position, SegmentWalk::Ask::longTags);
  bool pastEnd = false;
  while (!pastEnd) {
    const std::size_t gaps = walk.gaps().size();
    const std::optional<SegmentBounds> bounds = walk.next();
    delivered_.clear();
    if (walk.gaps().size() > gaps) playLost(walk.gaps().back().begin, walk.gaps().back().end);
    if (!bounds) break;
    pastEnd = plan_.end && bounds->startTime >= *plan_.end;
    if (!pastEnd) playSegment(*bounds);
    showProgress(walk.position(), walk.end());
  }
  tally_.gaps = walk.gaps().size();
  tally_.isComplete = tally_.gaps == 0;
  walk.tellGaps();
  if (tally_.recovered > 0) {
    report(fmt::format("{}: tags found behind damage: {}", stream_.name(), tally_.recovered));
  }
  if (tally_.unknownTags > 0) {
    report(fmt::format("{}: tags of unknown type left out: {}", stream_.name(), tally_.unknownTags));
  }
  if (verifier_ && startsAtFront() && walk.isComplete()) verifier_->endFile();
  completeMetadata();
  return tally_;
}

// Loads leave the head records out. Decoders need the set-up records wherever playing starts.
void Player::sendHead() {
  if (!writer_) return;
  stream_.headRecords([&](const HeadRecord& record) {
    if (record.trackId == kTrackMetaData && plan_.isPiece) {
      sendMetadata(record.tag);
    } else if (record.trackId != kTrackControl) {
      writer_->tag(record.tag);
    }
  });
  if (startsAtFront()) return;
  codecSetups_ = SetupSearch(stream_).before(plan_.start.position, plan_.start.skip).tags();
}

// What can't be rebuilt would be false, and stays out.
void Player::sendMetadata(const Tag& tag) {
  ClipFacts facts;
  const u32 last = lastTimeBefore(stream_, plan_.end);
  const u32 first = startsAtFront() ? firstTimeIn(stream_) : plan_.start.time;
  facts.duration = (last - std::min(last, first)) / 1000.0;
  if (writer_->canReplace()) facts.fileSize = 0.0;
  const auto payload = clipMetadata(tag, facts);
  if (!payload) return;
  if (writer_->canReplace()) metadata_.emplace(tag);
  metadataPosition_ = writer_->position() + flv::kTagHeaderSize;
  Tag changed = tag;
  changed.data = payload->data();
  changed.size = static_cast<u32>(payload->size());
  writer_->tag(changed);
}

void Player::completeMetadata() {
  if (!metadata_) return;
  const u32 duration = tally_.lastTime - std::min(tally_.firstTime, tally_.lastTime);
  const auto payload =
      clipMetadata(metadata_->view(), {duration / 1000.0, static_cast<double>(writer_->position())});
  if (payload) writer_->replace(metadataPosition_, *payload);
}

void Player::playSegment(const SegmentBounds& bounds) {
  ++tally_.segments;
  if (verifier_) verifier_->beginSegment(bounds);
  const bool whole = stream_.load(bounds, [&](const Message& message) {
    if (verifier_) verifier_->check(message);
    take(message);
  });
  skip_ = 0;
  if (whole) {
    if (verifier_) verifier_->endSegment();
    return;
  }
  ++tally_.damagedSegments;
  playLost(bounds.startPosition, bounds.endPosition + 1);
  report(fmt::format("{}: damaged between bytes {} and {}; what cannot be read there is left out",
                     stream_.name(), bounds.startPosition, bounds.endPosition));
}

// The whole tags of a byte run that a load didn't get to.
void Player::playLost(i64 from, i64 to) {
  const DeliveredTags delivered = std::exchange(delivered_, {});
  const auto takeFound = [this](const SegmentBounds& place, const Message& message) {
    if (verifier_) verifier_->beginSegment(place);
    if (verifier_) verifier_->check(message);
    if (verifier_) verifier_->endSegment();
    take(message);
  };
  tally_.recovered += LostTags(stream_, from, to).load(delivered, takeFound);
}

void Player::take(const Message& message) {
  ++tally_.messages;
  tally_.aggregates += message.isAggregate();
  forEachTag(message, [&](const Tag& tag) { takeTag(tag, message.isAggregate()); });
  if (writer_) writer_->completeAggregate();
}

void Player::takeTag(const Tag& tag, bool inAggregate) {
  PlayTally::Kind& kind = tally_.kinds[tag.type];
  ++kind.tags;
  kind.bytes += tag.size;
  delivered_.note(tag);
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
  progress_.showShare(position - plan_.start.position, end - plan_.start.position,
                      fmt::format("{}  {} tags", timeText(tally_.lastTime), tally_.sent.tags));
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
  const std::optional<SegmentBounds> bounds = stream.segmentAtTime(time);
  if (!bounds) {
    const u32 last = stream.duration();
    if (time > last) {
      throw fileFault(
          fmt::format("{}: ends at {}, before {}", stream.name(), timeText(last), timeText(time)));
    }
    const std::optional<SegmentBounds> first = stream.segmentAtPosition(0);
    if (first && time < first->startTime) return {};
    throw fileFault(fmt::format("{}: no segment found at {}", stream.name(), timeText(time)));
  }

  const StartCandidates found = candidatesIn(stream, *bounds, time);
  const PlayStart nearest = found.tag.value_or(PlayStart{bounds->startPosition, 0, bounds->startTime});
  if (!found.hasVideo && !(stream.typeFlags() & kFlagVideo)) return nearest;
  const KeyFrameSearch search = searchKeyFrame(stream, *bounds, time);
  if (search.keyFrame) return *search.keyFrame;
  return search.sawVideo && search.reachedFront ? PlayStart{} : nearest;
}

std::optional<PlayStart> findKeyFrame(Stream& stream, const SegmentBounds& bounds, u32 time) {
  return searchKeyFrame(stream, bounds, time).keyFrame;
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
