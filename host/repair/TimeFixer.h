// Times mended: the stream starts at 0, never runs back and never jumps.

#pragma once

#include <optional>

#include "host/flv/Tags.h"

namespace orv::host {

// Jumps and backward steps move all that follows, audio and video alike, so that they stay together: it goes
// on where the stream was, a frame later. Audio or video that goes back by less than a second is held
// instead.
class TimeFixer {
 public:
  // Returns the tag's new time.
  u32 fix(const Tag& tag);
  // What comes next is another recording: its times say nothing of those before.
  void startPart() { startsPart_ = started_; }

 private:
  struct Track {
    i64 last = 0;   // New time.
    i64 frame = 0;  // Between its last two tags.
  };

  void moveTo(const Track& track, i64 time);
  i64 fixData(i64 time) const;

  Track audio_, video_;
  bool started_ = false;
  bool startsPart_ = false;
  i64 offset_ = 0;
  i64 last_ = 0;  // New time, of audio and video.
};

}  // namespace orv::host
