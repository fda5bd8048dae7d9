// Plays a file that another stream or process records into: what is new at each look, once.

#pragma once

#include <functional>

#include "host/module/PlayOut.h"

namespace orv::host {

struct FollowTally {
  u64 tags = 0;
  u64 bytes = 0;  // Of data.
  u32 firstTime = 0;
  u32 lastTime = 0;
  u64 damaged = 0;  // Segments, and gaps between them, that couldn't be read whole.
};

class DeliveredTags;

// Rests on the module's own refresh alone: asked for the file's end, it notices a change and scans anew.
class Follower {
 public:
  using Handler = std::function<void(const Tag&)>;
  explicit Follower(Stream& stream) : stream_(stream) {}

  // Before the first load: leaves out what stands before.
  void startAt(const PlayStart& start) { position_ = start.position, skip_ = start.skip; }

  // Whether there is something new to load.
  bool hasGrown();
  // Delivers it, in the order of the module. Damage is reported and gone past.
  void load(const Handler& handler);
  // Whether the file was removed, replaced or cut, so that what follows has nothing to do with what was
  // played. Told once.
  bool isGone();

  i64 position() const { return position_; }  // Up to here the file was played.
  const FollowTally& tally() const { return tally_; }

 private:
  void loadLost(i64 from, i64 to, const DeliveredTags& delivered, const Handler& handler);
  void deliver(const Tag& tag, const Handler& handler);
  bool isReplaced() const;

  Stream& stream_;
  i64 position_ = 0;
  u64 skip_ = 0;  // Tags of the first load that don't go out.
  bool gone_ = false;
  FollowTally tally_;
};

}  // namespace orv::host
