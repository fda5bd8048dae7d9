#include "Session.h"

#include <fmt/format.h>

#include <cstring>

#include "Console.h"
#include "Failure.h"
#include "ModulePath.h"

namespace orv::host {

namespace {

constexpr u32 kOpenForPlaying = 0;

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
      files_(tellWriteFault),
      context_(options.settings, files_, tell),
      module_(findModule(options.module), context_) {}

Stream Session::open(const std::string& file) {
  const FileIdentity identity = checkReadable(file);
  const std::string path = toModulePath(file);
  context_.nameFile(moduleFileName(path), file);
  const FileCalls before = calls();
  void* handle = nullptr;
  const StreamLoadStatus status = module_.adaptor().open(path.c_str(), kOpenForPlaying, nullptr, handle);
  openingCalls_ += calls().total() - before.total();
  openingBytes_ += calls().bytesRead - before.bytesRead;
  if (status != StreamLoadOk) throw fileFault(file + ": " + explainRefusal(file));
  return Stream(module_.adaptor(), handle, file, identity);
}

void Session::reportStats() const {
  if (!stats_) return;
  const FileCalls c = calls();
  tell(fmt::format("opening: {} host calls, {} bytes read", openingCalls_, openingBytes_));
  tell(fmt::format(
      "in all: {} host calls (open {}, close {}, read {}, write {}, fstat {}, stat {}), {} bytes read",
      c.total(), c.open, c.close, c.read, c.write, c.fstat, c.stat, c.bytesRead));
}

}  // namespace orv::host
