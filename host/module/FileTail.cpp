#include "host/module/FileTail.h"

#include <algorithm>
#include <limits>

#include "host/flv/FlvNames.h"
#include "host/module/SetupSearch.h"

namespace orv::host {

namespace {

constexpr u32 kDefaultFrame = 40;  // Milliseconds: 25 frames a second.
constexpr u32 kLongestFrame = 1000;

// The distance of the last two different times of one kind of tag.
class FrameClock {
 public:
  void note(u32 time) {
    if (seen_ && time > last_) frame_ = time - last_;
    seen_ = true;
    last_ = time;
  }
  bool isKnown() const { return frame_ > 0 && frame_ <= kLongestFrame; }
  u32 frame() const { return frame_; }

 private:
  bool seen_ = false;
  u32 last_ = 0;
  u32 frame_ = 0;
};

}  // namespace

FileTail readTail(Session& session, const std::string& file) {
  Stream stream = session.open(file, Look::allWhole);
  FileTail tail;
  tail.size = stream.identity().size;
  tail.playableEnd = stream.size();
  tail.hasTags = stream.endPosition() > 0;
  tail.frameTime = kDefaultFrame;
  if (!tail.hasTags) return tail;

  stream.headRecords([&](const HeadRecord& record) {
    if (record.trackId != kTrackControl) tail.head.emplace_back(record.tag);
  });
  FrameClock video, audio;
  tail.lastTime = stream.duration();
  if (const auto last = stream.segmentAtPosition(tail.playableEnd - 1)) {
    stream.load(*last, [&](const Message& message) {
      forEachTag(message, [&](const Tag& tag) {
        tail.lastTime = std::max(tail.lastTime, tag.time);
        if (tag.isVideo()) video.note(tag.time);
        if (tag.isAudio()) audio.note(tag.time);
      });
    });
  }
  if (video.isKnown()) {
    tail.frameTime = video.frame();
  } else if (audio.isKnown()) {
    tail.frameTime = audio.frame();
  }
  tail.setups = SetupSearch(stream).before(tail.playableEnd - 1, std::numeric_limits<u64>::max()).tags();
  return tail;
}

}  // namespace orv::host
