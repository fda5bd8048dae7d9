#include "host/module/SegmentWalk.h"

#include <fmt/format.h>

#include "host/text/Console.h"

namespace orv::host {

namespace {

// Behind damage every place that is tried may cost the module a long search. So the first few MiB are tried
// closely, and what lies farther in steps that double: a long run of rubbish ends the walk soon.
constexpr i64 kProbeStep = 128 * 1024;
constexpr int kCloseProbes = 64;

}  // namespace

std::optional<SegmentBounds> SegmentWalk::findAt(i64 position) {
  std::optional<SegmentBounds> bounds = stream_.segmentAtPosition(position);
  // Each segment must end behind the place that was asked for, or the walk would never end.
  if (!bounds || bounds->endPosition < position || bounds->startPosition > position) return std::nullopt;
  return bounds;
}

std::optional<SegmentBounds> SegmentWalk::next() {
  if (position_ >= end_) return std::nullopt;
  std::optional<SegmentBounds> bounds = findAt(position_);
  if (!bounds) bounds = findBehindDamage();
  position_ = bounds ? bounds->endPosition + 1 : end_;
  return bounds;
}

std::optional<SegmentBounds> SegmentWalk::findBehindDamage() {
  i64 step = kProbeStep;
  int probes = 0;
  for (i64 place = position_ + step; place < end_; place += step) {
    if (const auto bounds = findAt(place); bounds && bounds->startPosition >= position_) {
      if (bounds->startPosition > position_) gaps_.push_back({position_, bounds->startPosition});
      return bounds;
    }
    if (++probes > kCloseProbes) step *= 2;
  }
  gaps_.push_back({position_, end_});
  return std::nullopt;
}

void SegmentWalk::tellGaps() const {
  for (const Gap& gap : gaps_) {
    report(fmt::format("{}: damaged; no segment found between bytes {} and {}", stream_.name(), gap.begin,
                       gap.end - 1));
  }
}

}  // namespace orv::host
