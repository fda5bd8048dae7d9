// What all tags of a stream say together, gathered as they pass.

#pragma once

#include <optional>

#include "host/flv/MediaHead.h"
#include "host/flv/PictureSize.h"

namespace orv::host {

struct StreamFacts {
  struct Kind {
    u64 tags = 0;
    u64 frames = 0;  // Tags that aren't set-up records and the like.
    u64 bytes = 0;   // Of data.
    u32 firstTime = 0;
    u32 lastTime = 0;
    std::optional<CodecId> codec;  // The first that a tag states.
    u32 frameTime = 0;             // Between the last two tags of different times; 0 until then.
  };

  Kind audio, video, data, other;
  u32 firstTime = 0;
  u32 lastTime = 0;  // Of the last tag of audio or video, in the order of the stream; else of any.
  u64 keyFrames = 0;
  u32 lastKeyFrameTime = 0;
  bool endsWithKeyMark = false;  // The last video tag has one: a player may seek to the end.
  std::optional<PictureSize> pictures;
  std::optional<u8> audioFormat;  // First byte of the first audio tag in the classic form.

  void note(const Tag& tag, const std::optional<MediaHead>& head);

  bool isEmpty() const { return tagCount() == 0; }
  u64 tagCount() const { return audio.tags + video.tags + data.tags + other.tags; }
  u64 mediaBytes() const { return audio.bytes + video.bytes; }
  // In milliseconds: the last time, and as long as the last frame is shown or heard.
  u32 duration() const;
  Kind& kindOf(const Tag& tag) {
    return tag.isAudio() ? audio : tag.isVideo() ? video : tag.isData() ? data : other;
  }

 private:
  bool lastIsVideo_ = false;
};

}  // namespace orv::host
