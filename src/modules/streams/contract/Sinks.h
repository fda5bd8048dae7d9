// The host's sinks: where the module delivers what it was asked for. Each is called on the caller's thread,
// with no lock held. Data is valid during the call only.

#pragma once

#include "modules/streams/contract/Export.h"

class ORV_EXPORT ISegmentHolder {
  ORV_INTERFACE_MEMBERS(ISegmentHolder)

  // One message of a loaded segment. `type` is an FLV tag type, its filter bit 0x20 included, or 22 for an
  // aggregate; `time` is in milliseconds.
  virtual void onMessage(unsigned short type, const void* data, orv::u32 size, orv::u32 time) = 0;
  virtual void reserved() = 0;  // Not called by this module.

 protected:
  ~ISegmentHolder() = default;
};

// Kinds of head records: their track ids.
namespace orv {
inline constexpr u32 kTrackMetaData = 2;          // "onMetaData"
inline constexpr u32 kTrackAdditionalHeader = 3;  // "|AdditionalHeader"
inline constexpr u32 kTrackXmpData = 4;           // "onXMPData"
inline constexpr u32 kTrackControl = 5;  // Made by the module, one with each additional header; no tag.
}  // namespace orv

class ORV_EXPORT IContextHolder {
  ORV_INTERFACE_MEMBERS(IContextHolder)

  // One head record. `trackID` is its kind. `messageType` is what the receiver is to treat the data as;
  // `time` is in milliseconds; `position` is -1, for none; `contextType` is ContextTypeBefore.
  virtual void onContext(unsigned short messageType, const void* data, orv::u32 size, orv::u32 time,
                         orv::i64 position, orv::u32 trackID, orv::u32 contextType) = 0;

 protected:
  ~IContextHolder() = default;
};

class ORV_EXPORT IAllContextHolder {
  ORV_INTERFACE_MEMBERS(IAllContextHolder)

  // All media contexts as one serialized AMF0 object, which holds one object for each: "contextType", "time",
  // "messageType", "buffer" (bytes, marker 32), "position" (64 bits, marker 34) and "trackID".
  virtual void onAllContexts(const void* data, orv::u32 size) = 0;

 protected:
  ~IAllContextHolder() = default;
};
