// Goes through a file's segments from a place to the end, as a server that plays a file through does.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/files/ReadOnlyFile.h"
#include "host/module/Session.h"

namespace orv::host {

class SegmentWalk {
 public:
  // A byte run in which the module finds no segment. Half-open.
  struct Gap {
    i64 begin;
    i64 end;
  };

  // Whom a walk asks where a segment ends. The module searches back through the bytes of a long tag; whoever
  // goes forward can read its end in its header.
  enum class Ask { module, longTags };

  // From the segment that holds byte `from` to the end that the file has now.
  explicit SegmentWalk(Stream& stream, i64 from = 0, Ask ask = Ask::module)
      : stream_(stream), position_(from), end_(stream.endPosition()), ask_(ask) {}

  // None at the end. Where no segment is found the walk looks for one farther on.
  std::optional<SegmentBounds> next();

  i64 position() const { return position_; }  // The first byte that isn't covered yet.
  i64 end() const { return end_; }
  const std::vector<Gap>& gaps() const { return gaps_; }
  bool isComplete() const { return position_ >= end_ && gaps_.empty(); }
  // One line for each gap, on standard error.
  void tellGaps() const;

 private:
  std::optional<SegmentBounds> findAt(i64 position);
  std::optional<SegmentBounds> followLongTags();
  std::optional<SegmentBounds> findBehindDamage();

  Stream& stream_;
  i64 position_;
  const i64 end_;
  const Ask ask_;
  bool isAtTag_ = false;  // A tag begins at position_: a segment ends in front of it.
  std::optional<ReadOnlyFile> file_;
  std::vector<Gap> gaps_;
};

}  // namespace orv::host
