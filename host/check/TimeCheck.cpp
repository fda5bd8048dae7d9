#include "host/check/TimeCheck.h"

#include <fmt/format.h>

#include "host/text/TimeText.h"

namespace orv::host {

void TimeCheck::note(const WalkedTag& tag) {
  lastOfAll_ = tag.tag.time;
  lastPosition_ = tag.position;
  if (tag.tag.isAudio()) noteMedia(audio_, video_, tag);
  if (tag.tag.isVideo()) noteMedia(video_, audio_, tag);
}

void TimeCheck::noteMedia(Track& track, const Track& other, const WalkedTag& tag) {
  const u32 time = tag.tag.time;
  if (!last_ && time > 0) {
    findings_.add(Code::firstTime, fmt::format("starts at {}", timeText(time)), tag.position, time);
  }
  if (!track.isThere) track.start = time, track.isThere = true;
  if (goesBack(track, tag)) {
    hasRunBack_ = true;
    audio_.last = video_.last = {};
    latest_ = 0;
  } else if (last_ && time > *last_ && time - *last_ > kJumpMs) {
    findings_.add(Code::timeJump, fmt::format("{} ms ahead of the tag before", time - *last_), tag.position,
                  time);
    audio_.last = video_.last = {};
  } else if (track.last && time > *track.last && time - *track.last > kGapMs && other.last &&
             *other.last > *track.last + kGapMs / 2) {
    findings_.add(Code::gap, fmt::format("no {} for {} ms", track.name, time - *track.last), tag.position,
                  time);
  }
  track.last = last_ = time;
  latest_ = std::max(latest_, time);
}

bool TimeCheck::goesBack(const Track& track, const WalkedTag& tag) {
  const u32 time = tag.tag.time;
  if (track.last && time < *track.last && *track.last - time <= kInterleaveMs) {
    findings_.add(Code::timeStepBack, fmt::format("{} goes back by {} ms", track.name, *track.last - time),
                  tag.position, time);
    return false;
  }
  const u32 before = std::max(track.last.value_or(0), last_.value_or(0));
  if (time >= before || before - time <= kInterleaveMs) return false;
  findings_.add(Code::timeBackward, fmt::format("{} ms before an earlier tag", before - time), tag.position,
                time);
  return true;
}

void TimeCheck::finish() {
  if (last_ && lastOfAll_ + kInterleaveMs < latest_) {
    findings_.add(Code::lastTime, fmt::format("the latest time is {}", timeText(latest_)), lastPosition_,
                  lastOfAll_);
  }
  if (!audio_.last || !video_.last) return;
  const auto apart = [&](const char* what, u32 audio, u32 video) {
    const u32 distance = audio > video ? audio - video : video - audio;
    if (distance <= kInterleaveMs) return;
    findings_.add(Code::drift,
                  fmt::format("audio {} at {}, video at {}", what, timeText(audio), timeText(video)));
  };
  apart("starts", audio_.start, video_.start);
  if (!hasRunBack_) apart("ends", *audio_.last, *video_.last);
}

}  // namespace orv::host
