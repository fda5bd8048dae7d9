// One publisher's stream on its way into a file.

#pragma once

#include <optional>
#include <string>

#include "host/flv/FlvReader.h"
#include "host/flv/MetadataReserve.h"
#include "host/module/Recording.h"
#include "host/server/Library.h"

namespace orv::host {

// The name is taken already.
class AlreadyPublished : public std::exception {};

// Goes on behind a file that is there. Used by one thread at a time; every call may block.
class Publication {
 public:
  // Throws AlreadyPublished, NotServed, Failure.
  Publication(Library& library, std::string name);
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;
  // Flushes what came, however the publisher went.
  ~Publication();

  // Throws Failure if the stream can't be followed or recorded any farther.
  void take(const u8* data, std::size_t size);
  void flushIfDue();
  // How long until the next flush is due; none while nothing is staged.
  std::optional<std::chrono::milliseconds> untilFlush() const {
    return recording_ ? recording_->untilFlush() : std::nullopt;
  }
  // Last. Returns what came of it, in a few words. Throws Failure.
  std::string finish();

 private:
  struct Claim {
    Claim(Library& library, const std::string& name);
    ~Claim() { library.release(name); }
    Library& library;
    const std::string name;
  };

  std::string mirrorOf(const std::string& name) const;
  void record(const Tag& tag);
  void wakeViewers();

  Library& library_;
  const std::string name_;
  const Claim claim_;
  RecordTarget target_;
  Session session_;
  std::optional<Recording> recording_;
  MetadataReserve reserve_;
  FlvReader reader_;
  u64 flushesSeen_ = 0;
  bool isFinished_ = false;
};

}  // namespace orv::host
