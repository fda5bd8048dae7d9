#include "Recording.h"

#include <fmt/format.h>

#include <algorithm>

#include "Console.h"
#include "Failure.h"
#include "FlvNames.h"
#include "TimeText.h"
#include "util/KTThrowable.h"

namespace orv::host {

namespace {

// A flush doesn't wait for its time once so much is staged: input that comes faster than it plays must not
// pile up in memory.
constexpr u64 kMostStaged = 8 << 20;

// Other types can be stored, but no player takes them for tags: a file would fall apart at each of them.
bool isPlayableType(const Tag& tag) {
  return tag.isAudio() || tag.isVideo() || tag.isData() || tag.plainType() == flv::kTypeCommandAmf0 ||
         tag.plainType() == flv::kTypeCommandAmf3;
}

// What the module won't record in `tag`, though it says so for the first one alone; null for what it takes.
// It looks into plain tags only.
const char* unsupportedCodec(const Tag& tag) {
  if (tag.size == 0) return nullptr;
  if (tag.type == flv::kTypeVideo && (tag.data[0] & 15) == kCodecAvc) return "H.264";
  if (tag.type == flv::kTypeAudio && tag.data[0] >> 4 == kCodecAac) return "AAC";
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

Recording::Recording(Session& session, RecordTarget& target, std::chrono::milliseconds flushInterval)
    : session_(session), target_(target), interval_(flushInterval), stream_(target.open(session)) {
  requireSoundFile();
}

// The module doesn't look at the result of each write: a part of a tag, or of the header, may now stand in
// the file. What players see ends before it for as long as nothing follows.
void Recording::requireSoundFile() const {
  if (session_.writeFaults() == 0) return;
  throw hostFault(target_.file() + ": recording ends here; what was flushed before can be played");
}

void Recording::take(const Tag& tag) {
  if (tag.plainType() != flv::kTypeAggregate) return record(tag);
  const Message aggregate{flv::kTypeAggregate, tag.time, tag.data, tag.size};
  if (!forEachTag(aggregate, [this](const Tag& entry) { record(entry); })) refuse("torn aggregates");
}

void Recording::record(const Tag& tag) {
  if (!isPlayableType(tag)) return refuse(fmt::format("of type {}", tag.type));
  try {
    if (!stream_.record(tag)) throw hostFault(target_.file() + ": can't be opened again for recording");
  } catch (const KTBreakConnection&) {
    return refuse("unreadable metadata");
  }
  requireSoundFile();
  if (const char* const codec = unsupportedCodec(tag)) return refuse(codec);
  note(tag);
  if (stagedBytes_ >= kMostStaged) flush();
}

void Recording::note(const Tag& tag) {
  if (tally_.tags++ == 0) tally_.firstTime = tag.time;
  tally_.mediaTags += tag.isAudio() || tag.isVideo();
  tally_.bytes += tag.size;
  tally_.lastTime = tag.time;
  if (stagedBytes_ == 0) stagedSince_ = Clock::now();
  stagedBytes_ += tag.size + flv::kTagOverhead;
}

void Recording::refuse(const std::string& what) {
  if (tally_.refused[what]++ > 0) return;
  if (what == "H.264" || what == "AAC") {
    tell(
        fmt::format("{}: {} can't be recorded and is left out; ffmpeg makes what can be with -c:v flv1 "
                    "-c:a libmp3lame",
                    target_.file(), what));
  } else {
    tell(fmt::format("{}: tags can't be recorded and are left out: {}", target_.file(), what));
  }
}

std::optional<std::chrono::milliseconds> Recording::untilFlush() const {
  if (stagedBytes_ == 0) return std::nullopt;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(stagedSince_ + interval_ - Clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

void Recording::flushIfDue() {
  if (untilFlush() == std::chrono::milliseconds(0)) flush();
}

void Recording::flush() {
  if (stagedBytes_ == 0) return;
  SegmentBounds bounds{};
  const bool done = stream_.flush(bounds);
  requireSoundFile();
  if (!done) throw hostFault(target_.file() + ": the module can't flush what was recorded");
  ++tally_.flushes;
  stagedBytes_ = 0;
}

void Recording::finish() {
  flush();
  erased_ = isEmpty() && !target_.appends() && stream_.erase();
}

std::string Recording::summaryText() const {
  std::string text = isEmpty()
                         ? "nothing could be recorded"
                         : fmt::format("{} tags, {} bytes of data, {} to {}, in {} flush{}", tally_.tags,
                                       tally_.bytes, timeText(tally_.firstTime), timeText(tally_.lastTime),
                                       tally_.flushes, tally_.flushes == 1 ? "" : "es");
  if (erased_) text += ", and no file is left";
  if (tally_.refusedTags() > 0) text += "; refused: " + tally_.refusedText();
  return text;
}

}  // namespace orv::host
