// The module's settings.

#pragma once

#include <set>

#include "platform/Types.h"

namespace orv::flv {

// Starts from the defaults; an adaptor overlays what its host has to say. Sizes are in bytes.
struct FLVConfig {
  u32 maxSegSize = 0x40000;
  u32 minSegSize = 0x20000;          // In effect only the least value of the three search and segment sizes.
  u32 readSize = 16384;              // The scan buffer of a frame search.
  u32 maxFrameScan = 0x1000000;      // How far a frame search walks back.
  u32 maxBackFrameScan = 0x400000;   // How far the search for the last tag walks back.
  u32 autoBufferReadSize = 0x48000;  // The read cache of a stream.
  bool frameReserveCheck = false;
  bool playIncompleteFLVs = true;  // Search back for the last good tag of a torn file.
  i32 retryCorruptedFLVs = -1;     // Reports of bad data a stream may make, less one; negative: no limit.
  std::set<u8> frameTypes{9, 8, 20, 17, 18, 15, 41, 40, 52, 49, 50, 47};  // Unmasked type bytes of frames.
  bool enableAggMsgs = true;
  u32 maxAggMsgSize = 0x10000;   // An aggregate is closed by the tag that reaches this size.
  bool recordAllCodecs = false;  // Record H.264 and AAC too, and whatever else comes as audio or video.
};

}  // namespace orv::flv
