#include "host/server/Publication.h"

#include <fmt/format.h>

#include <filesystem>

#include "host/text/Console.h"
#include "host/text/CountText.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

// Of one stream: a publisher must not fill the log.
constexpr u64 kMostReported = 20;

// What everybody sends is taken; the last sound tag is found behind a torn one of any size; flushes read
// little.
CommonOptions recordingOptions(CommonOptions common) {
  common.settings.setDefault("RecordCodecs", "all");
  common.settings.setDefault("MaxBackFrameScan", std::to_string(Settings::kMostSearchLimit));
  common.settings.setDefault("AutoBufferReadSize", "16384");
  return common;
}

std::optional<FileTail> tailOf(Session& session, const RecordTarget& target) {
  if (!target.appends()) return std::nullopt;
  FileTail tail = readTail(session, target.file());
  if (tail.torn() > 0) throw fileFault("the file has a torn end; flvhost repair makes a sound file of it");
  if (!tail.hasTags) return std::nullopt;
  return tail;
}

}  // namespace

Publication::Publication(std::shared_ptr<const NameClaim> claim)
    : claim_(std::move(claim)),
      library_(claim_->library),
      name_(claim_->name),
      target_(library_.pathOf(name_, false), mirrorOf(name_), Onto::append),
      session_(recordingOptions(library_.options().common)),
      reserve_([this](const Tag& tag) { recording_->take(tag); }),
      reader_(
          [this](const Tag& tag) {
            // What is appended to has its metadata, or has none, and what came now would not be its head.
            if (target_.appends()) return recording_->take(tag);
            reserve_.take(tag);
          },
          [this](u64 position, u64 size) { noteDamage(position, size); }) {
  recording_.emplace(session_, target_,
                     RecordingOptions{library_.options().flushInterval, tailOf(session_, target_)});
  library_.begun(name_);
}

Publication::~Publication() {
  if (isFinished_) return;
  try {
    finish();
  } catch (const std::exception& fault) {
    report(fault.what());
  }
}

std::string Publication::mirrorOf(const std::string& name) const {
  if (library_.options().mirrorFolder.empty()) return {};
  const std::filesystem::path path = std::filesystem::path(library_.options().mirrorFolder) / name;
  std::error_code ignored;  // A folder that can't be made shows when the copy is.
  std::filesystem::create_directories(path.parent_path(), ignored);
  return path.native();
}

// The stream goes on at the next tag, as a repair would.
void Publication::noteDamage(u64 position, u64 size) {
  if (damages_ < kMostReported) report(damageText(name_, position, size));
  if (++damages_ == kMostReported) report(name_ + ": is damaged too often to tell each place");
  lose(size, true);
}

void Publication::lose(u64 bytes, bool isDamage) {
  lostBytes_ += bytes;
  library_.streamFaults().damaged += isDamage;
  library_.streamFaults().lostBytes += bytes;
}

void Publication::endStream() {
  if (!isReadable_ || !reader_.fault().empty()) return;
  reader_.finish();
  const std::string end = reader_.explainEnd();
  if (!end.empty()) report(name_ + ": " + end);
  lose(reader_.leftOver(), reader_.isLost());
}

void Publication::take(const u8* data, std::size_t size) {
  isReadable_ = false;
  const bool goesOn = reader_.feed(data, size);
  isReadable_ = true;
  flushIfDue();
  if (!goesOn) throw fileFault("the stream " + reader_.fault());
}

void Publication::flushIfDue() {
  recording_->flushIfDue();
  wakeViewers();
}

void Publication::wakeViewers() {
  if (recording_->tally().flushes == flushesSeen_) return;
  flushesSeen_ = recording_->tally().flushes;
  if (const auto file = target_.descriptor().status()) {
    library_.noteFlush(name_, {file->st_dev, file->st_ino, file->st_size}, recording_->setupList());
  }
  library_.wake(name_);
}

std::string Publication::finish() {
  isFinished_ = true;
  endStream();
  reserve_.finish();
  recording_->finish();
  wakeViewers();
  std::string text = recording_->summaryText();
  if (lostBytes_ > 0) text += fmt::format("; lost of the stream: {}", countText(lostBytes_, "byte"));
  return text;
}

}  // namespace orv::host
