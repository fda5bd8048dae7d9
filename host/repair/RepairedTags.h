// The whole tags of a source, in order and once, as a sound file holds them.

#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "host/flv/Walker.h"
#include "host/repair/TimeFixer.h"

namespace orv::host {

struct RepairRules {
  bool fixTimes = false;
  bool dropUnknown = false;  // Leave out tags of no known type.
};

class RepairedTags {
 public:
  struct Sink {
    virtual ~Sink() = default;
    // First, once. `metadata` is the old "onMetaData", null if there is none among the first tags; it isn't
    // among the tags that follow. `first` are some of those.
    virtual void begin(const Tag* metadata, const std::vector<OwnedTag>& first) = 0;
    virtual void tag(const Tag& tag) = 0;
  };
  struct Losses {
    u64 breaks = 0;
    i64 bytes = 0;         // In them.
    u64 unknownTypes = 0;  // Kept or not.
  };

  RepairedTags(ByteSource& source, const RepairRules& rules) : walker_(source), rules_(rules) {}

  // Calls `onProgress`(position) at each step.
  void run(Sink& sink, const std::function<void(i64)>& onProgress);

  const std::optional<Walker::FileHeader>& header() const { return walker_.header(); }
  const Losses& losses() const { return losses_; }

 private:
  void take(Sink& sink, const Tag& tag);
  void settle(Sink& sink);
  void note(const Break& gap);

  Walker walker_;
  const RepairRules rules_;
  TimeFixer times_;
  Losses losses_;
  // The first tags wait: an "onMetaData" may be among them, and they say what the others are.
  bool isSettled_ = false;
  std::vector<OwnedTag> waiting_;
  std::size_t waitingBytes_ = 0;
  std::optional<OwnedTag> metadata_;
};

}  // namespace orv::host
