// One publisher's stream on its way into a file.

#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/flv/FlvReader.h"
#include "host/flv/MetadataReserve.h"
#include "host/module/Recording.h"
#include "host/server/Library.h"

namespace orv::host {

// A publisher's hold on a name, until destruction.
class NameClaim {
 public:
  // Null if somebody has it.
  static std::shared_ptr<const NameClaim> take(Library& library, const std::string& name) {
    if (!library.claim(name)) return nullptr;
    return std::shared_ptr<const NameClaim>(new NameClaim(library, name));
  }
  NameClaim(const NameClaim&) = delete;
  NameClaim& operator=(const NameClaim&) = delete;
  ~NameClaim() { library.release(name); }

  Library& library;
  const std::string name;

 private:
  NameClaim(Library& of, const std::string& wanted) : library(of), name(wanted) {}
};

// Goes on behind a file that is there. Used by one thread at a time; every call may block.
class Publication {
 public:
  // Throws NotServed, Failure.
  explicit Publication(std::shared_ptr<const NameClaim> claim);
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;
  // Flushes what came, however the publisher went.
  ~Publication();

  // Goes past damage. Throws Failure if the stream is no FLV or can't be recorded any farther.
  void take(const u8* data, std::size_t size);
  void flushIfDue();
  // How long until the next flush is due; none while nothing is staged.
  std::optional<std::chrono::milliseconds> untilFlush() const {
    return recording_ ? recording_->untilFlush() : std::nullopt;
  }
  // Last. Returns what came of it, in a few words. Throws Failure.
  std::string finish();

 private:
  std::string mirrorOf(const std::string& name) const;
  void noteDamage(u64 position, u64 size);
  void endStream();
  void lose(u64 bytes, bool isDamage);
  void wakeViewers();

  const std::shared_ptr<const NameClaim> claim_;
  Library& library_;
  const std::string& name_;
  RecordTarget target_;
  Session session_;
  std::optional<Recording> recording_;
  MetadataReserve reserve_;
  FlvReader reader_;
  u64 flushesSeen_ = 0;
  bool isReadable_ = true;  // False once recording failed in the middle of what came.
  u64 damages_ = 0;
  u64 lostBytes_ = 0;
  bool isFinished_ = false;
};

}  // namespace orv::host
