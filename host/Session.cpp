#include "Session.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "Console.h"
#include "Failure.h"
#include "ModulePath.h"

namespace orv::host {

namespace {

constexpr u32 kOpenForPlaying = 0;
constexpr u32 kOpenForRecording = 1;

void tellWriteFault(const WriteFault& fault) {
  tell(fmt::format("{}: only {} of {} bytes written at position {}: {}", fault.path, fault.written,
                   fault.wanted, fault.position,
                   fault.error ? std::strerror(fault.error) : "the write fell short"));
}

}  // namespace

std::optional<SegmentBounds> Stream::segmentAtTime(u32 time) {
  SegmentBounds bounds{};
  if (!adaptor_.findSegmentByTime(handle_, time, &bounds)) return std::nullopt;
  return bounds;
}

std::optional<SegmentBounds> Stream::segmentAtPosition(i64 position) {
  SegmentBounds bounds{};
  if (!adaptor_.findSegmentByIndex(handle_, position, &bounds)) return std::nullopt;
  return bounds;
}

bool Stream::load(const SegmentBounds& bounds, const MessageHolder::Handler& handler) {
  MessageHolder holder(handler);
  SegmentBounds copy = bounds;
  return adaptor_.loadSegment(handle_, &copy, &holder);
}

bool Stream::headRecords(const HeadRecordHolder::Handler& handler) const {
  HeadRecordHolder holder(handler);
  return adaptor_.getMediaContexts(handle_, ContextTypeBefore, 0, &holder);
}

std::vector<u8> Stream::allContexts() const {
  AllContextsHolder holder;
  adaptor_.getAllMediaContexts(handle_, &holder);
  return std::move(holder.bytes);
}

void Stream::requirePlayable() const {
  if (endPosition() == 0) throw fileFault(name_ + ": " + explainNothingPlayable(name_, size()));
}

Session::Session(const CommonOptions& options)
    : stats_(options.stats),
      files_([this](const WriteFault& fault) {
        ++writeFaults_;
        tellWriteFault(fault);
      }),
      context_(options.settings, files_, tell),
      module_(findModule(options.module), context_) {}

// Null if the module refuses.
void* Session::open(const std::string& file, u32 mode, IBackupConn* mirror) {
  const std::string path = toModulePath(file);
  context_.nameFile(moduleFileName(path), file);
  const FileCalls before = calls();
  void* handle = nullptr;
  module_.adaptor().open(path.c_str(), mode, mirror, handle);
  openingCalls_ += calls().total() - before.total();
  openingBytes_ += calls().bytesRead - before.bytesRead;
  return handle;
}

Stream Session::open(const std::string& file) {
  const FileIdentity identity = checkReadable(file);
  void* const handle = open(file, kOpenForPlaying, nullptr);
  if (!handle) throw fileFault(file + ": " + explainRefusal(file));
  return Stream(module_.adaptor(), handle, file, identity);
}

RecordStream Session::openForRecording(const std::string& file, IBackupConn* mirror) {
  errno = 0;
  void* const handle = open(file, kOpenForRecording, mirror);
  if (handle) return RecordStream(module_.adaptor(), handle);
  if (const int error = errno) throw hostFault(file + ": " + std::strerror(error));
  throw fileFault(file + ": " + explainRefusal(file));
}

void Session::reportStats() const {
  if (!stats_) return;
  const FileCalls c = calls();
  tell(fmt::format("opening: {} host calls, {} bytes read", openingCalls_, openingBytes_));
  tell(fmt::format(
      "in all: {} host calls (open {}, close {}, read {}, write {}, fstat {}, stat {}), {} bytes read",
      c.total(), c.open, c.close, c.read, c.write, c.fstat, c.stat, c.bytesRead));
  if (c.write > 0) tell(fmt::format("written: {} bytes", c.bytesWritten));
}

}  // namespace orv::host
