// What the first bytes of an audio or video tag say, in the classic form (a codec of 4 bits) and in the
// extended ("enhanced") one: a packet type, then the codec as four characters.

#pragma once

#include <optional>

#include "host/flv/FlvNumbers.h"
#include "host/flv/Tags.h"

namespace orv::host {

enum class Packet : u8 {
  frames,
  setup,        // A codec's set-up record: a decoder needs it before the first frame.
  end,          // End of sequence.
  information,  // About frames to come: colours, places of channels.
  command,      // To the player, such as the start and the end of a seek.
  unknown,      // A number without a meaning, or the payload ends before it.
};

struct MediaHead {
  bool isVideo = false;
  std::optional<CodecId> codec;  // None if the payload doesn't get that far. Of several tracks, the first's.
  Packet packet = Packet::unknown;
  bool isExtended = false;
  bool isMultitrack = false;
  bool isKeyFrame = false;  // Decoding can start here: a key frame of video that brings a picture.
  bool hasKeyMark = false;  // Marked as one; set-up records and ends of sequence are as well.
  i32 compositionTime = 0;  // Milliseconds, to be added to the tag's time; 0 where there is none.
  u32 size = 0;             // Bytes of the payload that this was read from; the codec's own follow.

  bool isSetup() const { return packet == Packet::setup; }
  // Whether a decoder of the codec can't start without a set-up record.
  bool needsSetup() const;
};

// None for a tag that isn't audio or video, is encrypted, or is empty.
std::optional<MediaHead> mediaHead(const Tag& tag);

}  // namespace orv::host
