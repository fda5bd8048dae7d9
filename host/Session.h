// One run of the host: the module loaded over the file service, and the streams opened in it.

#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FileCheck.h"
#include "HostContext.h"
#include "ModuleLoader.h"
#include "PosixFileService.h"
#include "Tags.h"
#include "modules/streams/contract/IBackupConn.h"

namespace orv::host {

// What every subcommand can be told.
struct CommonOptions {
  std::string module;  // Empty: look for it.
  Settings settings;
  bool stats = false;
};

// An open stream of the module; closed on destruction. Results are the module's own, false and 0 included.
class Stream {
 public:
  Stream(IQVStreamAdaptor& adaptor, void* handle, std::string name, FileIdentity identity)
      : adaptor_(adaptor), handle_(handle), name_(std::move(name)), identity_(identity) {}
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
  // False if the segment is damaged; what came before the damage was delivered.
  bool load(const SegmentBounds& bounds, const MessageHolder::Handler& handler);
  // False if the file has none.
  bool headRecords(const HeadRecordHolder::Handler& handler) const;
  // All head records as the module serializes them; empty if there is none.
  std::vector<u8> allContexts() const;

  // Throws Failure if there is nothing to play.
  void requirePlayable() const;

 private:
  IQVStreamAdaptor& adaptor_;
  void* const handle_;
  const std::string name_;
  const FileIdentity identity_;
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

class Session {
 public:
  // Throws Failure if the module can't be had.
  explicit Session(const CommonOptions& options);

  // Opens `file` for playing. Throws Failure that tells why it can't be played.
  Stream open(const std::string& file);
  // Opens `file` for recording, and makes it if it isn't there. `mirror` may be null. Throws Failure.
  RecordStream openForRecording(const std::string& file, IBackupConn* mirror);
  FileCalls calls() const { return files_.calls(); }
  // Writes that failed or fell short. Each has been told on standard error.
  u64 writeFaults() const { return writeFaults_; }
  // With --stats: tells the host calls so far on standard error, those that opening files took apart.
  void reportStats() const;

 private:
  void* open(const std::string& file, u32 mode, IBackupConn* mirror);

  const bool stats_;
  std::atomic<u64> writeFaults_{0};
  u64 openingCalls_ = 0;
  u64 openingBytes_ = 0;
  PosixFileService files_;
  HostContext context_;
  ModuleLoader module_;
};

}  // namespace orv::host
