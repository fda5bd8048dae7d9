// Times that run backwards, jump, pause or drift apart.

#pragma once

#include "host/check/Findings.h"
#include "host/flv/Walker.h"

namespace orv::host {

// Times in milliseconds that tell mishap from habit: audio and video may be interleaved with less than a
// second between them, and a longer pause than a jump's is a jump of both.
inline constexpr u32 kInterleaveMs = 1000;
inline constexpr u32 kJumpMs = 10'000;
inline constexpr u32 kGapMs = 2000;

class TimeCheck {
 public:
  explicit TimeCheck(Findings& findings) : findings_(findings) {}

  void note(const WalkedTag& tag);
  void finish();

 private:
  struct Track {
    const char* name;
    std::optional<u32> last{};  // Since time last ran back.
    u32 start = 0;              // Of the whole file.
    bool isThere = false;
  };

  void noteMedia(Track& track, const Track& other, const WalkedTag& tag);
  bool goesBack(const Track& track, const WalkedTag& tag);

  Findings& findings_;
  Track audio_{"audio"}, video_{"video"};
  std::optional<u32> last_;  // Of audio and video.
  u32 latest_ = 0;
  bool hasRunBack_ = false;
  u32 lastOfAll_ = 0;
  i64 lastPosition_ = 0;
};

}  // namespace orv::host
