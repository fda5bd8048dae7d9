// One recording under way: tags go to the module as they come, and a flush follows each interval.

#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "RecordTarget.h"
#include "Tags.h"

namespace orv::host {

// What became of the tags.
struct RecordTally {
  u64 tags = 0;  // Recorded.
  u64 mediaTags = 0;
  u64 bytes = 0;  // Of their data.
  u64 flushes = 0;
  u32 firstTime = 0;
  u32 lastTime = 0;
  std::map<std::string, u64> refused;  // By what they held.

  u64 refusedTags() const;
  std::string refusedText() const;  // "12 H.264, 3 AAC"
};

class Recording {
 public:
  using Clock = std::chrono::steady_clock;
  // Makes the file. Throws Failure. The arguments must outlive the object.
  Recording(Session& session, RecordTarget& target, std::chrono::milliseconds flushInterval);

  // One tag of the input. Flushes if much is staged. Throws Failure once nothing more can be recorded: what
  // follows a failed write would only tear the file.
  void take(const Tag& tag);
  // Flushes if the interval is over.
  void flushIfDue();
  // How long until the interval is over; none while nothing is staged.
  std::optional<std::chrono::milliseconds> untilFlush() const;
  void flush();  // Now; nothing happens if nothing is staged.
  // Last. Flushes. A new file in which nothing could be recorded is erased again.
  void finish();
  std::string summaryText() const;  // What came of it, for a person, in a few words.

  const RecordTally& tally() const { return tally_; }
  // Whether there is nothing to play in what was recorded, because of what was refused or because nothing
  // came.
  bool isEmpty() const { return tally_.mediaTags == 0 && (tally_.tags == 0 || tally_.refusedTags() > 0); }

 private:
  void record(const Tag& tag);
  void note(const Tag& tag);
  void refuse(const std::string& what);
  void requireSoundFile() const;

  Session& session_;
  RecordTarget& target_;
  const std::chrono::milliseconds interval_;
  RecordStream stream_;
  RecordTally tally_;
  bool erased_ = false;
  u64 stagedBytes_ = 0;
  Clock::time_point stagedSince_;  // Of the first staged tag.
};

}  // namespace orv::host
