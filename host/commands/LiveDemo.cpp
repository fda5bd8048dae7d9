#include "host/commands/LiveDemo.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>

#include "host/files/ReadOnlyFile.h"
#include "host/flv/FlvReader.h"
#include "host/module/Follower.h"
#include "host/module/Recording.h"
#include "host/module/SeekAnswer.h"
#include "host/text/Console.h"
#include "host/text/CountText.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

// Of a file that is longer, the start is recorded.
constexpr i64 kMostRecorded = 64 << 20;
// Of stream time: so often the recorder flushes, and the follower looks.
constexpr u32 kFlushEvery = 500;

class TempFolder {
 public:
  TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "flvhost-XXXXXX").native();
    if (!::mkdtemp(name.data())) throw hostFault(name + ": " + std::strerror(errno));
    path_ = name;
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string file(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// What went in, held against what comes out.
class TagComparison {
 public:
  void sent(const Tag& tag) { pending_.emplace_back(tag); }
  void received(const Tag& tag);
  // At the end: what hasn't come must be of the kind that players don't get.
  bool isGood();

  u64 equal() const { return equal_; }
  u64 keptAside() const { return keptAside_; }

 private:
  // Head records come as media contexts; a video frame of type 0 isn't played.
  static bool mayStayOut(const Tag& tag) { return (tag.isData() && tag.time == 0) || tag.isEmptyFrame(); }

  std::deque<OwnedTag> pending_;
  u64 equal_ = 0;
  u64 keptAside_ = 0;
  bool faulty_ = false;
};

void TagComparison::received(const Tag& tag) {
  for (; !pending_.empty(); pending_.pop_front()) {
    const Tag expected = pending_.front().view();
    if (expected.hasContentOf(tag)) {
      ++equal_;
      pending_.pop_front();
      return;
    }
    if (!mayStayOut(expected)) break;
    ++keptAside_;
  }
  faulty_ = true;
}

bool TagComparison::isGood() {
  for (const OwnedTag& tag : pending_) faulty_ |= !mayStayOut(tag.view());
  keptAside_ += pending_.size();
  pending_.clear();
  return !faulty_;
}

class LiveDemo {
 public:
  explicit LiveDemo(const DemoOptions& options)
      : source_(options.file),
        session_(withoutAggregates(options.common)),
        target_(folder_.file("live.flv"), folder_.file("copy.flv"), Onto::newFile),
        recording_(session_, target_, RecordingOptions{std::chrono::hours(1), {}}),
        player_(session_.open(target_.file())),
        follower_(player_) {}

  bool run();

 private:
  static CommonOptions withoutAggregates(CommonOptions common) {
    common.settings.setDefault("EnableAggMsgs", "false");
    common.settings.setDefault(Settings::kRecordCodecs, "all");
    return common;
  }
  void recordSource();
  void take(const Tag& tag);
  void recordTag(const Tag& tag);
  void flushAndFollow();
  bool showComparison();
  bool showSeek();
  bool showMirror() const;

  const std::string source_;
  TempFolder folder_;
  Session session_;
  RecordTarget target_;
  Recording recording_;
  Stream player_;
  Follower follower_;
  TagComparison comparison_;
  u32 lastFlush_ = 0;
  u64 looks_ = 0;
};

bool LiveDemo::run() {
  print("live recording, with a second handle that follows it\n");
  recordSource();
  recording_.finish();
  print("  recorded  " + recording_.summaryText() + "\n");
  if (recording_.isEmpty()) return true;
  const bool comparisonGood = showComparison();
  const bool seekGood = showSeek();
  const bool mirrorGood = showMirror();
  return comparisonGood && seekGood && mirrorGood;
}

void LiveDemo::recordSource() {
  const ReadOnlyFile file(source_);
  FlvReader reader([this](const Tag& tag) { take(tag); },
                   [this](u64 position, u64 size) { report(damageText(source_, position, size)); });
  std::vector<u8> chunk(64 << 10);
  for (i64 at = 0; at < kMostRecorded;) {
    const std::size_t size = file.read(at, chunk.data(), chunk.size());
    if (size == 0 || !reader.feed(chunk.data(), size)) break;
    at += static_cast<i64>(size);
  }
  reader.finish();
  flushAndFollow();
}

// An aggregate is recorded, and comes out, entry by entry.
void LiveDemo::take(const Tag& tag) {
  if (tag.plainType() != flv::kTypeAggregate) return recordTag(tag);
  const Message aggregate{flv::kTypeAggregate, tag.time, tag.data, tag.size};
  forEachTag(aggregate, [this](const Tag& entry) { recordTag(entry); });
}

void LiveDemo::recordTag(const Tag& tag) {
  const u64 before = recording_.tally().tags;
  recording_.take(tag);
  if (recording_.tally().tags > before) comparison_.sent(tag);
  if (tag.time - lastFlush_ < kFlushEvery) return;
  lastFlush_ = tag.time;
  flushAndFollow();
}

void LiveDemo::flushAndFollow() {
  recording_.flush();
  if (!follower_.hasGrown()) return;
  ++looks_;
  follower_.load([this](const Tag& tag) { comparison_.received(tag); });
}

bool LiveDemo::showComparison() {
  const bool good = comparison_.isGood() && follower_.tally().damaged == 0;
  print(fmt::format("  followed  {} in {}: {}; {} kept aside as head records or left out\n",
                    countText(follower_.tally().tags, "tag"), countText(looks_, "look"),
                    good ? "each one as it went in" : "NOT as they went in", comparison_.keptAside()));
  return good;
}

bool LiveDemo::showSeek() {
  const SeekAnswer answer = seek(session_, player_, recording_.tally().lastTime / 2);
  print("  seek to the middle of the recording\n" + seekText(answer));
  return answer.isWhole;
}

bool LiveDemo::showMirror() const {
  const bool equal = holdSameBytes(target_.file(), target_.copy());
  print(fmt::format("  mirror    {} bytes, {}\n", checkReadable(target_.copy()).size,
                    equal ? "equal to the recording" : "NOT equal to the recording"));
  return equal;
}

}  // namespace

ExitCode showLiveRecording(const DemoOptions& options) {
  const bool good = LiveDemo(options).run();
  flushOutput();
  return good ? ExitCode::good : ExitCode::fileFault;
}

}  // namespace orv::host
