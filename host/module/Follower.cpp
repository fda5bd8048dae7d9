#include "host/module/Follower.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/module/LostTags.h"
#include "host/module/SegmentWalk.h"
#include "host/text/Console.h"

namespace orv::host {

bool Follower::hasGrown() {
  return !isGone() && stream_.endPosition() > position_;
}

void Follower::load(const Handler& handler) {
  SegmentWalk walk(stream_, position_, SegmentWalk::Ask::longTags);
  for (;;) {
    const std::size_t gaps = walk.gaps().size();
    std::optional<SegmentBounds> bounds = walk.next();
    if (walk.gaps().size() > gaps) loadLost(walk.gaps().back().begin, walk.gaps().back().end, {}, handler);
    if (!bounds) break;
    // What ended at the file's old end is looked up as one segment with what was played of it.
    bounds->startPosition = std::max(bounds->startPosition, position_);
    DeliveredTags delivered;
    const bool whole = stream_.load(*bounds, [&](const Message& message) {
      forEachTag(message, [&](const Tag& tag) {
        delivered.note(tag);
        deliver(tag, handler);
      });
    });
    if (!whole) {
      ++tally_.damaged;
      loadLost(bounds->startPosition, bounds->endPosition + 1, delivered, handler);
      report(fmt::format("{}: damaged between bytes {} and {}; what cannot be read there is left out",
                         stream_.name(), bounds->startPosition, bounds->endPosition));
    }
    position_ = walk.position();
  }
  position_ = std::max(position_, walk.position());
  tally_.damaged += walk.gaps().size();
  walk.tellGaps();
}

// The whole tags of a byte run that the module can't load as one.
void Follower::loadLost(i64 from, i64 to, const DeliveredTags& delivered, const Handler& handler) {
  LostTags(stream_, from, to).load(delivered, [&](const SegmentBounds&, const Message& message) {
    forEachTag(message, [&](const Tag& tag) { deliver(tag, handler); });
  });
}

void Follower::deliver(const Tag& tag, const Handler& handler) {
  if (skip_ > 0) {
    --skip_;
    return;
  }
  if (tally_.tags++ == 0) tally_.firstTime = tag.time;
  tally_.bytes += tag.size;
  tally_.lastTime = tag.time;
  handler(tag);
}

bool Follower::isReplaced() const {
  const std::optional<FileIdentity> now = lookUp(stream_.name());
  return !now || now->size < position_ || !stream_.identity().isSame(*now);
}

bool Follower::isGone() {
  if (!gone_ && isReplaced()) {
    gone_ = true;
    report(stream_.name() + ": was removed, replaced or cut; no longer followed");
  }
  return gone_;
}

}  // namespace orv::host
