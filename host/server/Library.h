// The folder that the server serves: its names, its files that are being played, its recordings.

#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <vector>

#include "host/server/SharedFile.h"

namespace orv::host {

struct LibraryOptions {
  CommonOptions common;
  std::string folder;
  std::size_t cacheBytes = 64 << 20;
  std::chrono::milliseconds flushInterval{1000};
  std::string mirrorFolder;  // Empty: recordings have no second copy.
};

// What of publishers' streams came to no tag.
struct StreamFaults {
  std::atomic<u64> damaged{0};    // Byte runs.
  std::atomic<u64> lostBytes{0};  // Of these, and of tags that never became whole.
};

// There is nothing of that name to serve.
class NotServed : public std::exception {};

// Safe from any thread. All but `isPublished`, `wake` and `wakeAll` may block.
class Library {
 public:
  // Throws Failure if the folder can't be used, or the module can't be had.
  Library(LibraryOptions options, Pool pool);

  const LibraryOptions& options() const { return options_; }
  // The native name of `name`, which isServedName() has passed, in the folder, links followed. Throws
  // NotServed if it would lie elsewhere; a file that isn't there is an error only if `mustExist`.
  std::string pathOf(const std::string& name, bool mustExist) const;
  // What messages of the host may call it.
  std::string nativeName(const std::string& name) const { return root_ + "/" + name; }
  // Throws NotServed, Failure.
  std::shared_ptr<SharedFile> open(const std::string& name);
  // Name, size, duration, codecs, rate, whether it is live: for each file of the folder, up to 1000 of them.
  nlohmann::ordered_json list();

  // Whether somebody publishes `name`, so that it grows.
  bool isPublished(const std::string& name) const;
  // Takes `name` for one publisher. False if it has one.
  bool claim(const std::string& name);
  // Its file can be opened.
  void begun(const std::string& name);
  void release(const std::string& name);
  // If `name` has a publisher whose file isn't there yet: true, and `then` is called, on any thread, as soon
  // as it is or the publisher has given up. Else false.
  bool awaitBeginning(const std::string& name, std::function<void()> then);
  // What its publisher has flushed: into which file, and where set-ups stand in that.
  void noteFlush(const std::string& name, const FileIdentity& file, const SetupList& setups);
  // Viewers of `name` look again.
  void wake(const std::string& name);
  void wakeAll();

  const PieceCache& cache() const { return cache_; }
  const LoadFaults& faults() const { return faults_; }
  StreamFaults& streamFaults() { return streamFaults_; }
  const StreamFaults& streamFaults() const { return streamFaults_; }
  std::size_t openFiles() const;
  std::vector<std::string> published() const;

 private:
  struct Published {
    bool isBeginning = true;
    std::vector<std::function<void()>> waiting;  // For the beginning.
    std::optional<FileIdentity> file;            // As of the last flush, like the set-ups.
    SetupList setups;
  };
  struct Ended {
    std::string name;
    std::chrono::steady_clock::time_point time;
  };
  Stream openStream(const std::string& file);
  void dropOldEnds();
  bool mayGrow(const std::string& name, const struct stat& status);
  std::optional<SetupList> setupsOf(const std::string& name, const FileIdentity& file) const;
  nlohmann::ordered_json describe(const std::string& name);

  const LibraryOptions options_;
  const std::string root_;
  const Pool pool_;
  PieceCache cache_;
  LoadFaults faults_;
  StreamFaults streamFaults_;
  mutable std::mutex mutex_;
  std::mutex sessionMutex_;  // Taken last.
  Session session_;          // Under sessionMutex_.
  // Under mutex_.
  std::map<std::string, std::weak_ptr<SharedFile>> files_;
  std::vector<std::weak_ptr<SharedFile>> replaced_;  // Have viewers, but their name has gone to another.
  std::deque<std::shared_ptr<SharedFile>> recent_;   // Kept open for the next viewer, with what is loaded.
  std::map<std::string, Published> published_;       // While they have a publisher.
  std::deque<Ended> ended_;  // Had one until lately: that their files changed says nothing.
  u64 lastNumber_ = 0;
};

}  // namespace orv::host
