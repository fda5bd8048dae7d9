// How much of what comes when, in equal stretches of time.

#pragma once

#include <optional>
#include <vector>

#include "host/flv/MediaHead.h"

namespace orv::host {

// Keeps to 1024 stretches: they get twice as long whenever there would be more.
class Timeline {
 public:
  static constexpr std::size_t kMostStretches = 1024;
  static constexpr u64 kShortestMs = 200;

  struct Stretch {
    u64 video = 0, audio = 0, data = 0;  // Bytes of tags' data.
    u64 keyFrames = 0;
    double keyPlace = 0;  // Of the last key frame: from 0 at the stretch's start to 1 at its end.
  };

  void note(const Tag& tag, const std::optional<MediaHead>& head);

  const std::vector<Stretch>& stretches() const { return stretches_; }
  u64 stretchMs() const { return stretchMs_; }

 private:
  void halve();

  std::vector<Stretch> stretches_;
  u64 stretchMs_ = kShortestMs;
};

}  // namespace orv::host
