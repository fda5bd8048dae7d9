// Finds the codec set-up records that are valid in the middle of a file: those of its head, unless others
// have replaced them since.

#pragma once

#include <map>
#include <optional>
#include <set>

#include "host/module/Session.h"
#include "host/module/SetupList.h"

namespace orv::host {

// Where the file has a list of their places, that is asked, and only what it doesn't cover is looked through;
// without one, or with one that lies, the segments before the place are looked through up to a limit.
class SetupSearch {
 public:
  // What is looked through for one answer. Of an object on a web server each segment is a request or two.
  static constexpr i64 kMostBytesBack = 64 << 20;
  static constexpr i64 kMostRemoteBytesBack = 4 << 20;

  // `stream` must outlive the object.
  explicit SetupSearch(Stream& stream) : stream_(stream) {}

  // The records in front of the tag that `skip` tags of the segment at `position` stand before. `list`: what
  // is known of the file as it is being recorded; without it the list beside the file is read. Costs less for
  // a place behind one that was asked for before.
  CodecSetups before(i64 position, u64 skip, std::optional<SetupList> list = std::nullopt);

 private:
  using Keys = std::set<CodecSetups::Key>;
  // What was found for the start of a segment.
  struct Known {
    Keys wanted;  // Was looked for.
    CodecSetups setups;
  };

  CodecSetups at(i64 position, const Keys& wanted, std::optional<SetupList> list);
  CodecSetups noteSegment(const SegmentBounds& bounds, u64 most, Keys* frames = nullptr);
  bool takeListed(const SetupList& list, i64 position, CodecSetups& found) const;
  std::optional<SegmentBounds> segmentBefore(i64 position);

  Stream& stream_;
  std::map<i64, Known> known_;  // By the position of the segment.
};

}  // namespace orv::host
