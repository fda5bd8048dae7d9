#include "host/repair/TimeFixer.h"

#include <algorithm>

#include "host/check/TimeCheck.h"

namespace orv::host {

namespace {

constexpr i64 kUsualFrame = 20;  // Milliseconds; where nothing says otherwise.
constexpr i64 kLatest = 0xFFFFFFFF;

}  // namespace

u32 TimeFixer::fix(const Tag& tag) {
  const i64 time = tag.time;
  if (!tag.isAudio() && !tag.isVideo()) return static_cast<u32>(fixData(time));
  Track& track = tag.isAudio() ? audio_ : video_;
  if (!started_) {
    started_ = true;
    offset_ = -time;
  }
  const i64 moved = time + offset_;
  const bool isOff = moved + kInterleaveMs < std::max(last_, track.last) || moved > last_ + kJumpMs;
  if (isOff || startsPart_) moveTo(track, time);
  startsPart_ = false;

  const i64 fixed = std::clamp(time + offset_, track.last, std::max(track.last, kLatest));
  if (fixed > track.last && fixed - track.last <= kInterleaveMs) track.frame = fixed - track.last;
  track.last = last_ = fixed;
  return static_cast<u32>(fixed);
}

// `time` of the file becomes the one that follows all before.
void TimeFixer::moveTo(const Track& track, i64 time) {
  const i64 end = std::max(audio_.last, video_.last);
  offset_ = end + (track.frame > 0 ? track.frame : kUsualFrame) - time;
}

// Data that keeps to the times of the media stays in its place; any other goes where it stands.
i64 TimeFixer::fixData(i64 time) const {
  if (!started_) return 0;
  if (startsPart_) return last_;
  const i64 moved = time + offset_;
  return moved + kInterleaveMs < last_ || moved > last_ + kJumpMs ? last_
                                                                  : std::clamp(moved, i64{0}, kLatest);
}

}  // namespace orv::host
