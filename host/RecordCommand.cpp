#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "Commands.h"
#include "Console.h"
#include "FlvReader.h"
#include "MetadataReserve.h"
#include "Recording.h"
#include "StopSignals.h"
#include "TimeText.h"

namespace orv::host {

namespace {

constexpr char kInputName[] = "standard input";

class RecordRun {
 public:
  explicit RecordRun(const RecordOptions& options)
      : options_(options),
        target_(options.file, options.backup, options.onto),
        session_(options.common),
        reserve_([this](const Tag& tag) { recording().take(tag); }),
        reader_([this](const Tag& tag) { take(tag); }),
        chunk_(kChunkSize) {}

  ExitCode run();

 private:
  static constexpr std::size_t kChunkSize = 256 << 10;

  // Made once the stream has begun: an encoder that fails to start must not cost the old file.
  Recording& recording();
  void take(const Tag& tag);
  bool readInput();
  void showProgress();
  ExitCode conclude();

  const RecordOptions& options_;
  RecordTarget target_;
  Session session_;
  std::optional<Recording> recording_;
  MetadataReserve reserve_;
  FlvReader reader_;
  std::vector<u8> chunk_;
  Progress progress_;
};

Recording& RecordRun::recording() {
  if (!recording_) recording_.emplace(session_, target_, std::chrono::milliseconds(options_.flushEvery));
  return *recording_;
}

ExitCode RecordRun::run() {
  if (isatty(STDIN_FILENO)) throw hostFault("an FLV stream is wanted on standard input, from a pipe");
  if (options_.reserveMetadata && target_.appends()) {
    tell(target_.file() + ": goes on with the metadata that it has; nothing is reserved");
  }
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

// False at the end of the input, and where it can't be followed farther.
bool RecordRun::readInput() {
  const ssize_t size = ::read(STDIN_FILENO, chunk_.data(), chunk_.size());
  if (size > 0) return reader_.feed(chunk_.data(), static_cast<std::size_t>(size));
  if (size < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (size < 0) tell(std::string(kInputName) + ": " + std::strerror(errno));
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
  reserve_.finish();
  if (recording_) recording_->finish();
  const std::string end = reader_.fault().empty() ? reader_.explainEnd() : reader_.fault();
  if (!end.empty()) tell(std::string(kInputName) + ": " + end);
  if (!recording_) return ExitCode::fileFault;
  tell(target_.file() + ": " + recording_->summaryText());
  session_.reportStats();
  if (target_.mirror() && target_.mirror()->isBehind()) return ExitCode::hostFault;
  return recording_->isEmpty() || !reader_.fault().empty() ? ExitCode::fileFault : ExitCode::good;
}

}  // namespace

ExitCode runRecord(const RecordOptions& options) {
  return RecordRun(options).run();
}

}  // namespace orv::host
