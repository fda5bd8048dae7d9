// The head records of a file, kept aside for the host.

#pragma once

#include <boost/function.hpp>
#include <vector>

#include "modules/streams/contract/IQVStreamAdaptor.h"
#include "modules/streams/contract/Sinks.h"
#include "util/KTBuffer.h"

namespace orv::flv {

struct MediaContext {
  ContextType_t contextType = ContextTypeBefore;
  u32 time = 0;        // Milliseconds.
  u8 messageType = 0;  // Masked: what the receiver is to treat the data as.
  KTBuffer buffer;     // The payload, a block of exactly its size.
  i64 position = -1;   // Every record of this module has none.
  u32 trackID = 0;
};

// The records of one kind, in the order of their arrival.
struct MediaContextTrack {
  u32 trackID = 0;
  std::vector<MediaContext> records;

  // The record in effect at `position`: the last one before it, or for ContextTypeAfter the first one behind
  // it. Null if there is none, or if that record is of another context type.
  const MediaContext* find(ContextType_t contextType, i64 position) const;
};

// Used by one thread at a time.
class MediaContextStore {
 public:
  void clear() { tracks_.clear(); }
  // Appends to the record's track, which is made at need. Shares the block.
  void add(const MediaContext& record);
  // Calls `function` with each track's record at `position`, in the order in which the tracks came. True if
  // there was one.
  bool forEach(ContextType_t contextType, i64 position,
               const boost::function<void(const MediaContext&)>& function) const;
  // One AMF0 object of one object a record. False, with `out` untouched, if the store is empty.
  bool serialize(KTBuffer& out) const;
  // Rebuilds the store from such bytes; what a torn blob still holds is taken, up to `size` bytes of payload.
  // A size of 0 changes nothing. A marker that AMF0 doesn't have throws KTBreakConnection, and leaves the
  // store empty.
  void deserialize(const u8* data, u32 size);
  // An estimate of the memory held, in bytes.
  u32 byteSize() const;

 private:
  std::vector<MediaContextTrack> tracks_;
};

}  // namespace orv::flv
