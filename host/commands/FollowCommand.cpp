#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <optional>

#include "host/commands/Commands.h"
#include "host/commands/StopSignals.h"
#include "host/flv/FlvWriter.h"
#include "host/module/Follower.h"
#include "host/module/PlayOut.h"
#include "host/module/SetupSearch.h"
#include "host/text/Console.h"
#include "host/text/CountText.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

using Clock = std::chrono::steady_clock;

// How often the file is looked at: one call to the system while it rests.
constexpr auto kLookEvery = std::chrono::milliseconds(100);

// An aggregate's tags may be overtaken by one of time 0; what is played keeps the file's order.
CommonOptions moduleOptions(const FollowOptions& options) {
  CommonOptions common = options.common;
  common.settings.setDefault("EnableAggMsgs", "false");
  common.settings.setDefault("MaxBackFrameScan", std::to_string(Settings::kMostSearchLimit));
  return common;
}

class FollowRun {
 public:
  explicit FollowRun(const FollowOptions& options)
      : options_(options),
        session_(moduleOptions(options)),
        stream_(session_.open(options.file)),
        follower_(stream_) {
    if (!options.output.empty()) {
      out_.emplace(options.output, options.existing, stream_.identity(), Appearance::growing);
    }
    if (out_) writer_.emplace(*out_);
  }

  ExitCode run();

 private:
  void begin();
  PlayStart findStart();
  bool playNew();
  void play(const Tag& tag);
  bool isIdle(Clock::time_point lastGrowth) const;
  void showProgress();
  void requireTags();
  ExitCode conclude();

  const FollowOptions& options_;
  Session session_;
  Stream stream_;
  Follower follower_;
  std::optional<OutputFile> out_;
  std::optional<FlvWriter> writer_;
  bool hasBegun_ = false;
  Progress progress_;
};

ExitCode FollowRun::run() {
  const StopSignals signals;
  Clock::time_point lastGrowth = Clock::now();
  for (StopSignals::Wake wake; !wake.stop && !wake.ready;) {
    if (playNew()) {
      lastGrowth = Clock::now();
    } else if (isIdle(lastGrowth)) {
      break;
    }
    if (follower_.isGone()) break;
    wake = signals.waitForReaderGone(out_ ? out_->fd() : -1, kLookEvery);
  }
  return conclude();
}

bool FollowRun::isIdle(Clock::time_point lastGrowth) const {
  return options_.untilIdle && Clock::now() - lastGrowth >= std::chrono::milliseconds(*options_.untilIdle);
}

// A time that the file doesn't reach yet is waited for at its end.
PlayStart FollowRun::findStart() {
  if (!options_.from || stream_.endPosition() == 0) return {};
  const u32 last = stream_.duration();
  const u32 time = options_.fromEnd ? last - std::min(last, *options_.from) : *options_.from;
  return findPlayStart(stream_, std::min(time, last));
}

// The header's flags are known as soon as there are tags.
void FollowRun::begin() {
  hasBegun_ = true;
  const PlayStart start = findStart();
  follower_.startAt(start);
  if (!writer_) return;
  writer_->header(expectedFlags(stream_));
  stream_.headRecords([this](const HeadRecord& record) {
    if (record.trackId != kTrackControl) writer_->tag(record.tag);
  });
  if (start.position == 0 && start.skip == 0) return;
  for (const OwnedTag& kept : SetupSearch(stream_).before(start.position, start.skip).tags()) {
    Tag setup = kept.view();
    setup.time = start.time;
    writer_->tag(setup);
  }
}

bool FollowRun::playNew() {
  if (!follower_.hasGrown()) return false;
  if (!hasBegun_) begin();
  follower_.load([this](const Tag& tag) {
    if (writer_) writer_->tag(tag);
    showProgress();
  });
  if (out_) out_->flush();
  return true;
}

void FollowRun::showProgress() {
  if (!progress_.isDue()) return;
  progress_.show(fmt::format("{}  {} tags", timeText(follower_.tally().lastTime), follower_.tally().tags));
}

// A header alone is a recording that has just begun.
void FollowRun::requireTags() {
  if (!follower_.isGone() && checkReadable(options_.file).size > stream_.size()) stream_.requirePlayable();
}

ExitCode FollowRun::conclude() {
  if (!hasBegun_) begin();
  if (writer_) writer_->finish();
  requireTags();
  const FollowTally& tally = follower_.tally();
  note(stream_.name() + ": " + runText(tally.tags, tally.bytes, tally.firstTime, tally.lastTime));
  session_.reportStats();
  return follower_.isGone() || tally.damaged > 0 ? ExitCode::fileFault : ExitCode::good;
}

// Waits until the file holds more than a header. Returns false if stopped before.
bool waitForFile(const std::string& file) {
  const StopSignals signals;
  struct stat status {};
  while (::stat(file.c_str(), &status) != 0 || status.st_size <= flv::kFirstTagPosition) {
    if (signals.waitForReaderGone(-1, kLookEvery).stop) return false;
  }
  return true;
}

}  // namespace

ExitCode runFollow(const FollowOptions& options) {
  if (options.wait && !waitForFile(options.file)) return ExitCode::good;
  return FollowRun(options).run();
}

}  // namespace orv::host
