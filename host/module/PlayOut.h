// Plays a stream out: segment by segment, from one time to another, to a writer, past a verifier, or just by.

#pragma once

#include <map>
#include <optional>

#include "host/flv/FlvWriter.h"
#include "host/module/Session.h"
#include "host/module/TagVerifier.h"

namespace orv::host {

// Where playing starts: `skip` tags of the segment that holds byte `position` don't go out.
struct PlayStart {
  i64 position = 0;
  u64 skip = 0;
  u32 time = 0;  // Of the first tag that goes out.
};

// The last key frame of `bounds`, or of a segment before it, at or before `time`. None if there is none up to
// the start of the file.
std::optional<PlayStart> findKeyFrame(Stream& stream, const SegmentBounds& bounds, u32 time);

// The place for a player that wants to see `time`: the last key frame at or before it; in a file without
// video the last tag at or before it; the start of the file where there is neither. Throws Failure if the
// file ends before `time`.
PlayStart findPlayStart(Stream& stream, u32 time);

struct PlayPlan {
  PlayStart start;
  std::optional<u32> end;   // Tags of this time and later don't go out.
  bool aggregates = false;  // Tags that came in aggregates go out in aggregates.
  // A piece of the file: the metadata that goes out is made true of it.
  bool isPiece = false;
};

// What was delivered, and how much of it went out.
struct PlayTally {
  struct Kind {
    u64 tags = 0;
    u64 bytes = 0;  // Of data.
  };
  std::map<u8, Kind> kinds;  // By type byte.
  u64 messages = 0;
  u64 aggregates = 0;
  u64 segments = 0;
  u64 damagedSegments = 0;
  u64 gaps = 0;         // Between segments, in which none is found.
  u64 recovered = 0;    // Tags found behind damage, in segments and between them.
  u64 unknownTags = 0;  // Of a type that FLV doesn't know; they don't go out.
  Kind sent;
  u32 firstTime = 0;  // Of what went out.
  u32 lastTime = 0;
  bool isComplete = false;  // False where a part of what was asked for was out of reach.

  Kind total() const;
  bool isGood() const { return isComplete && damagedSegments == 0; }
};

// Plays on behind a damaged segment, and reports it on standard error. `writer` and `verifier` may be null.
// The writer gets the head records first, and what decoders need if the start isn't the file's.
PlayTally playOut(Stream& stream, const PlayPlan& plan, FlvWriter* writer, TagVerifier* verifier);

// The type flags that the played stream will need, as far as they are known before: those of the file's
// header and of its first segment; if they say nothing, of the whole file.
u8 expectedFlags(Stream& stream);

}  // namespace orv::host
