// A sound file out of any bytes.

#pragma once

#include "host/files/OutputFile.h"
#include "host/flv/StreamFacts.h"
#include "host/repair/RepairedTags.h"

namespace orv::host {

struct RepairResult {
  StreamFacts facts;  // Of what was written, without the metadata.
  RepairedTags::Losses losses;
};

struct RepairJob {
  RepairRules rules;
  bool keyFrames = false;  // With the index that many players seek by.
};

// Writes what `source` holds to `out` and closes it. One pass if the metadata can be put right at the end, or
// if neither side can go back; else two. Keeps to a bounded amount of memory. Throws Failure if there is no
// whole tag, or as `source` and `out` do.
RepairResult repair(ByteSource& source, OutputFile& out, const RepairJob& job,
                    const std::function<void(i64)>& onProgress);

}  // namespace orv::host
