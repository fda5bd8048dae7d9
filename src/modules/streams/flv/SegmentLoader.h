// Delivery: a run of tags, read into one block and handed over one by one or packed into aggregate messages.

#pragma once

#include "modules/streams/contract/Sinks.h"
#include "modules/streams/flv/HeadRecords.h"
#include "util/autofilebuffer.h"

namespace orv::flv {

// How tags are delivered.
struct DeliveryRules {
  i64 dataEnd;                     // A tag that ends behind it is none.
  const HeadRecords& headRecords;  // Left out: they go to the host as media contexts.
  bool aggregates;                 // Tags with a time other than 0 go out packed.
  u32 maxAggregateSize;            // An aggregate is closed by the tag that reaches this size.
};

// One load. The work block becomes a copy of the file's bytes, field by field as they stand, so that a row of
// tags in it is an aggregate message already: tags that go out alone or are dropped leave the place to their
// successor.
class SegmentLoader {
 public:
  // Borrows all of it.
  SegmentLoader(autofilebuffer& file, int fd, const DeliveryRules& rules, ISegmentHolder* holder)
      : file_(file), fd_(fd), rules_(rules), holder_(holder) {}

  // Delivers the tags of [start, stop). False if there is no memory for them, on a short read, and on tags
  // that don't follow from one another; what was delivered until then stays delivered.
  bool load(i64 start, i64 stop);

 private:
  void handleTag();
  void read(i64 position, u8* data, u32 size);
  void handOver(u8* tag, u32 size, u32 time);
  void join(u32 size, u32 time);
  void deliverAggregate();

  autofilebuffer& file_;
  const int fd_;
  const DeliveryRules rules_;
  ISegmentHolder* const holder_;
  i64 current_ = 0;        // The tag being read.
  u8* work_ = nullptr;     // The bytes of the run, the size field in front of it, and one more size field.
  u32 capacity_ = 0;       // Of the work block, without that last field.
  u32 expectedSize_ = 0;   // What the next size field must hold; 0: not known.
  u32 writeOffset_ = 0;    // Where in the work block the next tag lands.
  u32 pendingSize_ = 0;    // Bytes of the aggregate being collected.
  u32 pendingTime_ = 0;    // Time of its first tag.
  u32 lastEntrySize_ = 0;  // What the trailing field of its last tag must hold.
};

}  // namespace orv::flv
