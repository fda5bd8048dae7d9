// One recording under way: tags go to the module as they come, and a flush follows each interval.

#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/flv/CodecSetups.h"
#include "host/module/FileTail.h"
#include "host/module/RecordTarget.h"
#include "host/module/SetupNotes.h"

namespace orv::host {

// What became of the tags.
struct RecordTally {
  u64 tags = 0;  // Recorded.
  u64 audioTags = 0;
  u64 videoTags = 0;
  u64 bytes = 0;  // Of their data.
  u64 flushes = 0;
  u32 firstTime = 0;
  u32 lastTime = 0;
  u64 undecodable = 0;                 // Left out at the start of a new file, for want of a key frame.
  std::map<std::string, u64> refused;  // By what they held.
  u64 refusedAudio = 0;
  u64 refusedVideo = 0;

  u64 refusedTags() const;
  std::string refusedText() const;  // "12 H.264, 3 AAC"
  // Whether all sound, or all pictures, were refused.
  bool lostAKind() const {
    return (refusedAudio > 0 && audioTags == 0) || (refusedVideo > 0 && videoTags == 0);
  }
};

struct RecordingOptions {
  std::chrono::milliseconds flushInterval{1000};
  // How the file appended to ends.
  std::optional<FileTail> behind;
  // Times go on behind that end, and the stream's metadata are left out. Else all is recorded as it comes.
  bool continues = true;
};

// Where bytes of the file are at stake, it isn't touched before the first medium has come that is kept; what
// came before waits for it.
class Recording {
 public:
  using Clock = std::chrono::steady_clock;
  // Makes a new file at once. Throws Failure. `session` and `target` must outlive the object.
  Recording(Session& session, RecordTarget& target, RecordingOptions options);

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
  // Where the file's set-up records stand, as of the last flush.
  const SetupList& setupList() const { return notes_.list(); }
  // Whether there is nothing to play in what was recorded, because of what was refused or because nothing
  // came.
  bool isEmpty() const {
    return tally_.audioTags + tally_.videoTags == 0 && (tally_.tags == 0 || tally_.refusedTags() > 0);
  }
  // Whether a new look at the file finds what was recorded, to its end. Reports what it finds instead.
  bool isReadable() const;

 private:
  void offer(const Tag& tag);
  bool waits(const Tag& tag);
  void begin(u32 firstTime);
  void keep(const Tag& tag);
  // Null where times are as they come.
  const FileTail* joined() const {
    return options_.behind && options_.continues ? &*options_.behind : nullptr;
  }
  u32 placedTime(u32 time) const;
  void remember(const Tag& tag);
  void record(const Tag& tag);
  bool stage(const Tag& tag);
  void goOnInNewFile(u32 time);
  void note(const Tag& tag);
  void refuse(const Tag& tag, const std::string& what);
  void requireSoundFile() const;

  Session& session_;
  RecordTarget& target_;
  const RecordingOptions options_;
  std::optional<RecordStream> stream_;  // None until the file is touched.
  std::vector<OwnedTag> waiting_;
  std::size_t waitingBytes_ = 0;
  i64 shift_ = 0;  // Added to each time where the recording continues a file.
  // What a new file needs first.
  std::vector<OwnedTag> head_;
  CodecSetups setups_;
  SetupNotes notes_;
  bool waitsForKeyFrame_ = false;
  RecordTally tally_;
  bool erased_ = false;
  u64 stagedBytes_ = 0;
  Clock::time_point stagedSince_;  // Of the first staged tag.
};

}  // namespace orv::host
