// One run of the host: the module loaded over the file service, and the streams opened in it.

#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/files/FileCheck.h"
#include "host/files/HostFiles.h"
#include "host/files/ShortenedFiles.h"
#include "host/files/SyncedFiles.h"
#include "host/flv/Tags.h"
#include "host/module/HostContext.h"
#include "host/module/ModuleLoader.h"
#include "modules/streams/contract/IBackupConn.h"

namespace orv::host {

// The options that every subcommand takes.
struct CommonOptions {
  std::string module;  // Empty: look for it.
  Settings settings;
  bool stats = false;
  Sync sync = Sync::none;  // Of what is recorded.
};

// An open stream of the module; closed on destruction. Results are the module's own, false and 0 included.
class Stream {
 public:
  Stream(IQVStreamAdaptor& adaptor, void* handle, std::string name, FileIdentity identity);
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() { adaptor_.close(handle_); }

  const std::string& name() const { return name_; }           // Native, as the user wrote it.
  const FileIdentity& identity() const { return identity_; }  // As it was just before the opening.

  i64 size() const { return adaptor_.getSize(handle_); }
  i64 endPosition() const { return adaptor_.getEndPosition(handle_); }
  u32 duration() const { return adaptor_.getDuration(handle_); }
  u32 typeFlags() const { return adaptor_.getType(handle_); }
  u32 memoryOverhead() const { return adaptor_.getMemoryOverhead(handle_); }
  std::optional<SegmentBounds> segmentAtTime(u32 time);
  std::optional<SegmentBounds> segmentAtPosition(i64 position);
  // None at the start of the file, and behind a damage.
  std::optional<SegmentBounds> segmentBefore(const SegmentBounds& bounds);
  // False if the segment is damaged; what came before the damage was delivered. Of an object on a web server
  // each segment comes from one of its states; throws Failure if it can't be read.
  bool load(const SegmentBounds& bounds, const MessageHolder::Handler& handler);
  // Lets the module know that what was loaded of the segment at `position` isn't kept any longer.
  void freeSegment(i64 position);
  // False if the file has none.
  bool headRecords(const HeadRecordHolder::Handler& handler) const;
  // All head records as the module serializes them; empty if there is none.
  std::vector<u8> allContexts() const;

  // Throws Failure if there is nothing to play.
  void requirePlayable();

 private:
  template <class Query>
  auto untilSettled(Query query);
  bool loadOnce(const SegmentBounds& bounds, const MessageHolder::Handler& handler);

  IQVStreamAdaptor& adaptor_;
  void* const handle_;
  const std::string name_;
  const FileIdentity identity_;
  const std::shared_ptr<RemoteFile> remote_;  // Null for a local file.
};

// A stream of the module that records into a file; closed on destruction, which flushes nothing. Results are
// the module's own.
class RecordStream {
 public:
  RecordStream(IQVStreamAdaptor& adaptor, void* handle) : adaptor_(adaptor), handle_(handle) {}
  RecordStream(RecordStream&& other) noexcept
      : adaptor_(other.adaptor_), handle_(std::exchange(other.handle_, nullptr)) {}
  ~RecordStream() { adaptor_.close(handle_); }

  // False if the file can't be opened. What the module doesn't take is true as well. Throws KTBreakConnection
  // where the bytes of a metadata message make no sense.
  bool record(const Tag& tag) { return adaptor_.record(handle_, tag.type, tag.data, tag.size, tag.time); }
  bool flush(SegmentBounds& bounds) { return adaptor_.flushSegment(handle_, &bounds); }
  bool erase() { return adaptor_.erase(handle_); }
  // Copies to `mirror` what the file holds, and repeats every later write there.
  void attach(IBackupConn* mirror) { adaptor_.setUserData(handle_, mirror); }
  i64 size() const { return adaptor_.getSize(handle_); }
  i64 endPosition() const { return adaptor_.getEndPosition(handle_); }

 private:
  IQVStreamAdaptor& adaptor_;
  void* handle_;  // Null once moved from; closing that does nothing.
};

// Which tags of a file with a torn end are looked for.
enum class Look {
  asModuleDoes,  // Those that the module finds: a torn end hides the last whole tag in front of it.
  allWhole,      // That one too.
};

class Session {
 public:
  // Throws Failure if the module can't be had.
  explicit Session(const CommonOptions& options);

  // Opens `file` for playing. Where nothing playable is found within the module's limit of its search for the
  // last tag, reports that and tries once more with the largest limit; and then, of a local file, follows its
  // tags from the first one on, and shows it as far as they stand whole. Throws Failure that says why the
  // file can't be played.
  Stream open(const std::string& file, Look look = Look::asModuleDoes);
  // Opens `file` for recording, and makes it if it isn't there. `mirror` may be null. Throws Failure.
  RecordStream openForRecording(const std::string& file, IBackupConn* mirror);
  FileCalls calls() const { return files_.calls(); }
  // Whether the module records H.264 and AAC as well.
  bool recordsAllCodecs() const;
  // Writes that failed or fell short. Each has been reported on standard error.
  u64 writeFaults() const { return writeFaults_; }
  // With --stats: prints the host calls so far on standard error, those that opening files took apart.
  void reportStats() const;

 private:
  // An adaptor with settings of its own.
  struct Variant {
    Variant(Settings settings, IFileService& files, ModuleLoader& module);
    HostContext context;
    std::unique_ptr<IQVStreamAdaptor> adaptor;
  };

  struct Opened {
    IQVStreamAdaptor* adaptor;
    void* handle;
  };

  void* open(IQVStreamAdaptor& adaptor, const std::string& file, u32 mode, IBackupConn* mirror);
  bool mayHideTags(void* handle, const FileIdentity& identity) const;
  Opened openAsModuleDoes(const std::string& file, const FileIdentity& identity);
  std::optional<Opened> openShortened(const Opened& found, const std::string& file, i64 size, Look look);
  Opened openPlaying(IQVStreamAdaptor& adaptor, const std::string& file);
  IQVStreamAdaptor& farSeeing();
  IQVStreamAdaptor& shortSighted();
  Opened openRemote(const std::string& file, i64 size);
  std::unique_ptr<Variant> remoteVariant(const char* types);

  const bool stats_;
  const Settings settings_;
  std::atomic<u64> writeFaults_{0};
  u64 openingCalls_ = 0;
  u64 openingBytes_ = 0;
  HostFiles files_;
  SyncedFiles synced_;        // Over files_; what the module gets.
  ShortenedFiles shortened_;  // Over files_.
  HostContext context_;
  ModuleLoader module_;
  // Made when first needed.
  std::unique_ptr<Variant> farSeeing_;     // With the largest limits.
  std::unique_ptr<Variant> shortSighted_;  // Over shortened_.
  // For objects on web servers, with smaller reads; the first one takes nothing for a tag but what most files
  // consist of.
  std::unique_ptr<Variant> remoteCommon_;
  std::unique_ptr<Variant> remote_;
};

}  // namespace orv::host
