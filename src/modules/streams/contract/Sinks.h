// The host's sinks: where the module delivers what it was asked for. Each is called on the caller's thread,
// with no lock held. Data is valid during the call only.

#pragma once

#include "modules/streams/contract/Export.h"

class ORV_EXPORT ISegmentHolder {
  ORV_INTERFACE_MEMBERS(ISegmentHolder)

  // One message of a loaded segment. `type` is an FLV tag type, its filter bit 0x20 included, or 22 for an
  // aggregate; `time` is in milliseconds.
  virtual void onMessage(unsigned short type, const void* data, u32 size, u32 time) = 0;
  virtual void reserved() = 0;  // Not called by this module.

 protected:
  ~ISegmentHolder() = default;
};

class ORV_EXPORT IContextHolder {
  ORV_INTERFACE_MEMBERS(IContextHolder)

  // One head record. `trackID` is its kind: 2 "onMetaData", 3 "|AdditionalHeader", 4 "onXMPData", 5 the
  // control message that comes with each 3. `messageType` is what the receiver is to treat the data as;
  // `time` is in milliseconds; `position` is -1, for none; `contextType` is ContextTypeBefore.
  virtual void onContext(unsigned short messageType, const void* data, u32 size, u32 time, i64 position,
                         u32 trackID, u32 contextType) = 0;

 protected:
  ~IContextHolder() = default;
};

class ORV_EXPORT IAllContextHolder {
  ORV_INTERFACE_MEMBERS(IAllContextHolder)

  // All media contexts as one serialized AMF0 object, which holds one object for each: "contextType", "time",
  // "messageType", "buffer" (bytes, marker 32), "position" (64 bits, marker 34) and "trackID".
  virtual void onAllContexts(const void* data, u32 size) = 0;

 protected:
  ~IAllContextHolder() = default;
};
