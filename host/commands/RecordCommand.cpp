#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "host/commands/Commands.h"
#include "host/commands/StopSignals.h"
#include "host/flv/FlvReader.h"
#include "host/flv/MetadataReserve.h"
#include "host/module/Recording.h"
#include "host/text/Console.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

constexpr char kInputName[] = "standard input";

// The last sound tag is found behind a torn one of any size; flushes read little.
CommonOptions moduleOptions(const RecordOptions& options) {
  CommonOptions common = options.common;
  common.settings.setDefault("MaxBackFrameScan", std::to_string(Settings::kMostSearchLimit));
  common.settings.setDefault("AutoBufferReadSize", "16384");
  common.sync = options.sync;
  if (!options.codecs.empty()) common.settings.assign(Settings::kRecordCodecs + ("=" + options.codecs));
  common.settings.setDefault(Settings::kRecordCodecs, "all");
  return common;
}

class RecordRun {
 public:
  explicit RecordRun(const RecordOptions& options)
      : options_(options),
        target_(options.file, options.backup, options.onto),
        session_(moduleOptions(options)),
        reserve_([this](const Tag& tag) { recording().take(tag); }),
        reader_([this](const Tag& tag) { take(tag); },
                [this](u64 position, u64 size) { noteDamage(position, size); }),
        chunk_(kChunkSize) {}

  ExitCode run();

 private:
  static constexpr std::size_t kChunkSize = 256 << 10;

  void lookAtTail();
  // Made once the stream has begun: an encoder that fails to start must not cost the old file.
  Recording& recording();
  void take(const Tag& tag);
  void noteDamage(u64 position, u64 size);
  bool readInput();
  void showProgress();
  ExitCode conclude();

  const RecordOptions& options_;
  RecordTarget target_;
  Session session_;
  std::optional<FileTail> tail_;
  std::optional<Recording> recording_;
  MetadataReserve reserve_;
  FlvReader reader_;
  u64 damages_ = 0;
  std::vector<u8> chunk_;
  Progress progress_;
};

// New tags go behind the file's last byte, whatever it is.
void RecordRun::lookAtTail() {
  FileTail tail = readTail(session_, target_.file());
  if (tail.torn() > 0) {
    const std::string what =
        fmt::format("{}: no whole tag in its last {} bytes", target_.file(), tail.torn());
    if (!options_.force) {
      throw fileFault(what + "; flvhost repair makes a sound file of it, --force appends all the same");
    }
    report(what + "; they stay, and may stop players");
  }
  if (tail.hasTags) tail_ = std::move(tail);
}

Recording& RecordRun::recording() {
  if (!recording_) {
    recording_.emplace(session_, target_,
                       RecordingOptions{std::chrono::milliseconds(options_.flushEvery), std::move(tail_),
                                        options_.times == AppendedTimes::goOn});
  }
  return *recording_;
}

ExitCode RecordRun::run() {
  if (isatty(STDIN_FILENO)) throw hostFault("standard input is a terminal; pipe an FLV stream into it");
  if (target_.appends()) lookAtTail();
  const StopSignals signals;
  for (bool more = true; more;) {
    const auto timeout = recording_ ? recording_->untilFlush() : std::nullopt;
    const StopSignals::Wake wake = signals.waitForInput(STDIN_FILENO, timeout);
    more = !wake.stop && (!wake.ready || readInput());
    if (reader_.hasHeader()) recording().flushIfDue();
    showProgress();
  }
  return conclude();
}

// What is appended to has its metadata, or has none, and what came now would not be its head.
void RecordRun::take(const Tag& tag) {
  if (options_.reserveMetadata && !target_.appends()) {
    reserve_.take(tag);
  } else {
    recording().take(tag);
  }
}

// The stream goes on at the next tag, as a repair would.
void RecordRun::noteDamage(u64 position, u64 size) {
  ++damages_;
  report(damageText(kInputName, position, size));
}

// False at the end of the input, and where it can't be followed farther.
bool RecordRun::readInput() {
  const ssize_t size = ::read(STDIN_FILENO, chunk_.data(), chunk_.size());
  if (size > 0) return reader_.feed(chunk_.data(), static_cast<std::size_t>(size));
  if (size < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (size < 0) report(std::string(kInputName) + ": " + std::strerror(errno));
  return false;
}

void RecordRun::showProgress() {
  if (!recording_ || !progress_.isDue()) return;
  const RecordTally& tally = recording_->tally();
  std::string text = fmt::format("{}  {} bytes  {} tags  {} flushes", timeText(tally.lastTime), tally.bytes,
                                 tally.tags, tally.flushes);
  if (tally.refusedTags() > 0) text += "  refused: " + tally.refusedText();
  progress_.show(text);
}

ExitCode RecordRun::conclude() {
  reader_.finish();
  reserve_.finish();
  if (recording_) recording_->finish();
  const std::string end = reader_.fault().empty() ? reader_.explainEnd() : reader_.fault();
  if (!end.empty()) report(std::string(kInputName) + ": " + end);
  if (!recording_) return ExitCode::fileFault;
  const std::string summary = target_.file() + ": " + recording_->summaryText();
  recording_->isEmpty() ? report(summary) : note(summary);
  session_.reportStats();
  if (target_.mirror() && target_.mirror()->isBehind()) return ExitCode::hostFault;
  const bool isGood = recording_->isReadable() && !recording_->isEmpty() &&
                      !recording_->tally().lostAKind() && reader_.fault().empty() && damages_ == 0 &&
                      !reader_.isLost();
  return isGood ? ExitCode::good : ExitCode::fileFault;
}

}  // namespace

ExitCode runRecord(const RecordOptions& options) {
  return RecordRun(options).run();
}

}  // namespace orv::host
