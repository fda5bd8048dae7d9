#include "host/module/Recording.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/flv/FlvNames.h"
#include "host/flv/MetadataReserve.h"
#include "host/text/Console.h"
#include "host/text/CountText.h"
#include "host/text/Failure.h"
#include "host/text/TimeText.h"
#include "util/KTThrowable.h"

namespace orv::host {

namespace {

// A flush doesn't wait for its time once so much is staged: input that comes faster than it plays must not
// pile up in memory.
constexpr u64 kMostStaged = 8 << 20;

// What may wait for the first frame; a stream that brings more has none, and is recorded for what it brings.
constexpr std::size_t kMostWaiting = 1000;
constexpr std::size_t kMostWaitingBytes = 1 << 20;

// The module looks for head records in the first 20 tags.
constexpr std::size_t kMostHeadRecords = 20;

// Other types can be stored, but no player takes them for tags: a file would fall apart at each of them.
bool isPlayableType(const Tag& tag) {
  return tag.isAudio() || tag.isVideo() || tag.isData() || tag.plainType() == flv::kTypeCommandAmf0 ||
         tag.plainType() == flv::kTypeCommandAmf3;
}

// Returns what the module won't record in `tag` unless it records all codecs; null for what it takes. It
// looks into plain tags only.
const char* classicRefusal(const Tag& tag) {
  if (tag.size == 0) return nullptr;
  if (tag.type == flv::kTypeVideo && flv::videoCodecOf(tag.data[0]) == kAvc) return "H.264";
  if (tag.type == flv::kTypeAudio && flv::soundFormatOf(tag.data[0]) == kAac) return "AAC";
  return nullptr;
}

}  // namespace

u64 RecordTally::refusedTags() const {
  u64 sum = 0;
  for (const auto& [what, count] : refused) sum += count;
  return sum;
}

std::string RecordTally::refusedText() const {
  std::string text;
  for (const auto& [what, count] : refused) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, what);
  }
  return text;
}

Recording::Recording(Session& session, RecordTarget& target, RecordingOptions options)
    : session_(session), target_(target), options_(std::move(options)) {
  if (const auto& old = options_.behind) {
    head_ = old->head;
    for (const OwnedTag& setup : old->setups) setups_.note(setup.view());
  }
  if (!target_.holdsBytes()) begin(0);
}

// The module doesn't look at the result of each write: a part of a tag, or of the header, may now stand in
// the file. What players see ends before it for as long as nothing follows.
void Recording::requireSoundFile() const {
  if (session_.writeFaults() == 0) return;
  throw hostFault(target_.file() + ": recording ends here; what was flushed before can be played");
}

void Recording::take(const Tag& tag) {
  if (tag.plainType() != flv::kTypeAggregate) return offer(tag);
  const Message aggregate{flv::kTypeAggregate, tag.time, tag.data, tag.size};
  if (!forEachTag(aggregate, [this](const Tag& entry) { offer(entry); })) refuse(tag, "torn aggregates");
}

void Recording::offer(const Tag& tag) {
  if (!isPlayableType(tag)) return refuse(tag, fmt::format("of type {}", tag.type));
  const char* const codec = session_.recordsAllCodecs() ? nullptr : classicRefusal(tag);
  if (codec) return refuse(tag, codec);
  if (!stream_) {
    if (waits(tag)) return;
    begin(tag.time);
  }
  keep(tag);
}

// Keeps what comes before the first frame, unless that is so much that there must be no frames to come.
bool Recording::waits(const Tag& tag) {
  const bool isFrame = (tag.isAudio() || tag.isVideo()) && !isCodecSetup(tag);
  if (isFrame || waiting_.size() >= kMostWaiting || waitingBytes_ >= kMostWaitingBytes) return false;
  waiting_.emplace_back(tag);
  waitingBytes_ += tag.size;
  return true;
}

// `firstTime` is that of the tag that makes the recording begin.
void Recording::begin(u32 firstTime) {
  stream_.emplace(target_.open(session_));
  requireSoundFile();
  notes_.begin(target_.file(), target_.descriptor(), setups_);
  if (const auto* const old = joined()) shift_ = i64{old->lastTime} + old->frameTime - firstTime;
  for (const OwnedTag& tag : std::exchange(waiting_, {})) keep(tag.view());
}

// Set-up records and texts may bear a time far before the first frame's.
u32 Recording::placedTime(u32 time) const {
  if (!joined()) return time;
  const i64 join = i64{joined()->lastTime} + joined()->frameTime;
  return static_cast<u32>(std::max(join, time + shift_));
}

void Recording::keep(const Tag& tag) {
  if (joined() && isMetadata(tag)) return;  // The file has its own; a second one only confuses.
  Tag placed = tag;
  placed.time = placedTime(tag.time);
  record(placed);
  remember(placed);
}

void Recording::remember(const Tag& tag) {
  setups_.note(tag);
  if (tag.isData() && tag.time == 0 && head_.size() < kMostHeadRecords) head_.emplace_back(tag);
}

void Recording::record(const Tag& tag) {
  if (waitsForKeyFrame_ && tag.isVideo() && !isCodecSetup(tag)) {
    waitsForKeyFrame_ = !isKeyFrame(tag);
    if (waitsForKeyFrame_) {
      ++tally_.undecodable;
      return;
    }
  }
  const bool opensFile = stagedBytes_ == 0;
  if (!stage(tag)) return;
  if (opensFile && target_.wasMoved()) {
    goOnInNewFile(tag.time);
    return record(tag);
  }
  note(tag);
  if (stagedBytes_ >= kMostStaged) flush();
}

// Returns false for what the module can't read.
bool Recording::stage(const Tag& tag) {
  try {
    if (!stream_->record(tag)) throw hostFault(target_.file() + ": cannot be opened again for recording");
  } catch (const KTBreakConnection&) {
    refuse(tag, "unreadable metadata");
    return false;
  }
  requireSoundFile();
  notes_.staged(tag);
  if (stagedBytes_ == 0) stagedSince_ = Clock::now();
  stagedBytes_ += tag.size + flv::kTagOverhead;
  return true;
}

// What was just staged is for a file that lacks everything before it, and is dropped with the stream.
void Recording::goOnInNewFile(u32 time) {
  report(target_.file() + ": was moved away; recording continues in a new file");
  stream_.reset();
  stagedBytes_ = 0;
  notes_.end(target_.presentName());
  stream_.emplace(target_.reopen(session_));
  requireSoundFile();
  notes_.begin(target_.file(), target_.descriptor(), {});
  for (const OwnedTag& tag : head_) stage(tag.view());
  for (const OwnedTag& setup : setups_.tags()) {
    Tag tag = setup.view();
    tag.time = time;
    stage(tag);
  }
  waitsForKeyFrame_ = true;
}

void Recording::note(const Tag& tag) {
  if (tally_.tags++ == 0) tally_.firstTime = tag.time;
  tally_.audioTags += tag.isAudio();
  tally_.videoTags += tag.isVideo();
  tally_.bytes += tag.size;
  tally_.lastTime = tag.time;
}

void Recording::refuse(const Tag& tag, const std::string& what) {
  tally_.refusedAudio += tag.isAudio();
  tally_.refusedVideo += tag.isVideo();
  if (tally_.refused[what]++ > 0) return;
  if (what == "H.264" || what == "AAC") {
    report(fmt::format("{}: {} is left out, as --codecs classic asks", target_.file(), what));
  } else {
    report(fmt::format("{}: tags cannot be recorded and are left out: {}", target_.file(), what));
  }
}

std::optional<std::chrono::milliseconds> Recording::untilFlush() const {
  if (stagedBytes_ == 0) return std::nullopt;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(stagedSince_ + options_.flushInterval - Clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

void Recording::flushIfDue() {
  if (untilFlush() == std::chrono::milliseconds(0)) flush();
}

void Recording::flush() {
  if (stagedBytes_ == 0) return;
  SegmentBounds bounds{};
  const bool done = stream_->flush(bounds);
  requireSoundFile();
  if (!done) throw hostFault(target_.file() + ": the module cannot flush what was recorded");
  ++tally_.flushes;
  stagedBytes_ = 0;
  notes_.flushed(target_.descriptor());
}

void Recording::finish() {
  if (!stream_ && !waiting_.empty() && tally_.refusedTags() == 0) begin(waiting_.front().view().time);
  flush();
  erased_ = stream_ && isEmpty() && !target_.appends() && stream_->erase();
  if (stream_) notes_.end(erased_ ? "" : target_.presentName());
}

bool Recording::isReadable() const {
  if (erased_ || tally_.tags == 0 || target_.wasMoved()) return true;
  try {
    const Stream stream = session_.open(target_.file());
    const i64 lost = stream.identity().size - stream.size();
    if (lost <= 0 && stream.endPosition() > 0) return true;
    report(fmt::format("{}: its last {} bytes cannot be read back; flvhost repair makes a sound file of it",
                       target_.file(), lost));
  } catch (const Failure& failure) {
    report(failure.what());
  }
  return false;
}

std::string Recording::summaryText() const {
  std::string text = isEmpty() ? "nothing could be recorded"
                               : runText(tally_.tags, tally_.bytes, tally_.firstTime, tally_.lastTime) +
                                     ", in " + countText(tally_.flushes, "flush", "es");
  if (erased_) text += ", and no file is left";
  if (!stream_ && target_.holdsBytes()) text += ", and the file stays as it was";
  if (tally_.undecodable > 0) text += fmt::format("; {} without a key frame left out", tally_.undecodable);
  if (tally_.refusedTags() > 0) text += "; refused: " + tally_.refusedText();
  return text;
}

}  // namespace orv::host
