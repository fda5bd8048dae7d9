#include "host/flv/StreamFacts.h"

#include <algorithm>

namespace orv::host {

namespace {

constexpr u32 kLongestFrame = 1000;  // Milliseconds; a longer distance is a gap.

}  // namespace

void StreamFacts::note(const Tag& tag, const std::optional<MediaHead>& head) {
  const bool isMedia = tag.isAudio() || tag.isVideo();
  Kind& kind = kindOf(tag);
  if (tagCount() == 0) firstTime = tag.time;
  if (kind.tags == 0) kind.firstTime = tag.time;
  if (kind.tags > 0 && tag.time > kind.lastTime) kind.frameTime = tag.time - kind.lastTime;
  kind.lastTime = tag.time;
  ++kind.tags;
  kind.bytes += tag.size;
  if (isMedia || (audio.tags == 0 && video.tags == 0)) {
    lastTime = tag.time;
    lastIsVideo_ = tag.isVideo();
  }
  if (!head) return;
  if (head->packet == Packet::frames) ++kind.frames;
  if (!kind.codec) kind.codec = head->codec;
  if (tag.isAudio() && !head->isExtended && !audioFormat) audioFormat = tag.data[0];
  if (!tag.isVideo()) return;
  endsWithKeyMark = head->hasKeyMark;
  if (head->isKeyFrame) ++keyFrames, lastKeyFrameTime = tag.time;
  if (!pictures) pictures = pictureSize(tag, *head);
}

u32 StreamFacts::duration() const {
  const u32 frame = lastIsVideo_ ? video.frameTime : audio.frameTime;
  return lastTime + (frame <= kLongestFrame ? std::min(frame, ~lastTime) : 0);
}

}  // namespace orv::host
