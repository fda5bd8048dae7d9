#include "host/module/Session.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "host/files/ModulePath.h"
#include "host/flv/FileFault.h"
#include "host/flv/WholeTags.h"
#include "host/text/Console.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

constexpr u32 kOpenForPlaying = 0;
constexpr u32 kOpenForRecording = 1;
// A request takes as long as many bytes do, but not as many as the module reads of a disk at a time.
constexpr char kRemoteReadSize[] = "65536";
// Audio, video and AMF0 data. Wherever bytes look like a tag's start, the module looks at the place where
// that tag would end, far away: a request each. With fewer types there are fewer such places.
constexpr char kFrameTypes[] = "FrameTypes";
constexpr char kCommonTypes[] = "8 9 18";

void tellWriteFault(const WriteFault& fault) {
  report(fmt::format("{}: only {} of {} bytes written at position {}: {}", fault.path, fault.written,
                     fault.wanted, fault.position,
                     fault.error ? std::strerror(fault.error) : "the write fell short"));
}

}  // namespace

Stream::Stream(IQVStreamAdaptor& adaptor, void* handle, std::string name, FileIdentity identity)
    : adaptor_(adaptor),
      handle_(handle),
      name_(std::move(name)),
      identity_(identity),
      remote_(isRemote(name_) ? RemoteFiles::shared().find(name_) : nullptr) {}

// An object may become another one while the module reads it, whose answer is then worth nothing. So the
// module looks at the object anew, and is asked again, until all of an answer comes from one state.
template <class Query>
auto Stream::untilSettled(Query query) {
  constexpr int kMostTries = 8;
  for (int tries = 1;; ++tries) {
    u32 stamp = 0;
    if (remote_) {
      stamp = remote_->stamp();
      endPosition();
    }
    auto answer = query();
    if (!remote_ || remote_->stamp() == stamp || tries == kMostTries) {
      if (!answer && remote_) remote_->requireReached();
      return answer;
    }
  }
}

std::optional<SegmentBounds> Stream::segmentAtTime(u32 time) {
  std::optional<RemoteFile::Seeking> seeking;
  if (remote_) seeking.emplace(*remote_);
  return untilSettled([&]() -> std::optional<SegmentBounds> {
    SegmentBounds bounds{};
    if (!adaptor_.findSegmentByTime(handle_, time, &bounds)) return std::nullopt;
    return bounds;
  });
}

std::optional<SegmentBounds> Stream::segmentAtPosition(i64 position) {
  return untilSettled([&]() -> std::optional<SegmentBounds> {
    SegmentBounds bounds{};
    if (!adaptor_.findSegmentByIndex(handle_, position, &bounds)) return std::nullopt;
    return bounds;
  });
}

std::optional<SegmentBounds> Stream::segmentBefore(const SegmentBounds& bounds) {
  if (bounds.startPosition <= 0) return std::nullopt;
  std::optional<RemoteFile::Seeking> seeking;
  if (remote_) seeking.emplace(*remote_);
  const auto before = segmentAtPosition(bounds.startPosition - 1);
  return before && before->startPosition < bounds.startPosition ? before : std::nullopt;
}

bool Stream::load(const SegmentBounds& bounds, const MessageHolder::Handler& handler) {
  if (!remote_) return loadOnce(bounds, handler);
  std::vector<KeptMessage> kept;
  const bool whole = untilSettled([&] {
    kept.clear();
    remote_->fetch(bounds.startPosition, bounds.endPosition + 1);
    return loadOnce(bounds, [&](const Message& message) { kept.emplace_back(message); });
  });
  for (const KeptMessage& message : kept) handler(message.view());
  return whole;
}

bool Stream::loadOnce(const SegmentBounds& bounds, const MessageHolder::Handler& handler) {
  MessageHolder holder(handler);
  SegmentBounds copy = bounds;
  return adaptor_.loadSegment(handle_, &copy, &holder);
}

// The module counts segments as one to each 256 KiB.
void Stream::freeSegment(i64 position) {
  adaptor_.onFreeSegment(handle_, static_cast<u32>(position >> 18));
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

void Stream::requirePlayable() {
  if (untilSettled([this] { return endPosition(); }) == 0)
    throw fileFault(name_ + ": " + explainNothingPlayable(name_, size()));
}

Session::Session(const CommonOptions& options)
    : stats_(options.stats),
      settings_(options.settings.checked()),
      files_([this](const WriteFault& fault) {
        ++writeFaults_;
        tellWriteFault(fault);
      }),
      synced_(
          files_, options.sync, systemSyncer(),
          [this](const std::string& path) {
            ++writeFaults_;
            report(toNativePath(path.c_str()) + ": cannot be synced to the disk: " + std::strerror(errno));
          }),
      shortened_(files_),
      context_(settings_, synced_, report),
      module_(findModule(options.module), context_) {}

Session::Variant::Variant(Settings settings, IFileService& files, ModuleLoader& module)
    : context(std::move(settings), files, report), adaptor(module.make(context)) {}

// Null if the module refuses.
void* Session::open(IQVStreamAdaptor& adaptor, const std::string& file, u32 mode, IBackupConn* mirror) {
  const std::string path = toModulePath(file);
  context_.nameFile(moduleFileName(path), file);
  for (Variant* const variant : {farSeeing_.get(), shortSighted_.get(), remoteCommon_.get(), remote_.get()}) {
    if (variant) variant->context.nameFile(moduleFileName(path), file);
  }
  const FileCalls before = calls();
  void* handle = nullptr;
  adaptor.open(path.c_str(), mode, mirror, handle);
  openingCalls_ += calls().total() - before.total();
  openingBytes_ += calls().bytesRead - before.bytesRead;
  return handle;
}

// Whether the search for the last tag found nothing, and ended at its limit rather than at the file's front.
bool Session::mayHideTags(void* handle, const FileIdentity& identity) const {
  IQVStreamAdaptor& adaptor = module_.adaptor();
  const u32 limit = settings_.searchLimit();
  return limit < Settings::kMostSearchLimit && adaptor.getEndPosition(handle) == 0 &&
         identity.size - adaptor.getSize(handle) > limit;
}

// `types` null: all that the module knows.
std::unique_ptr<Session::Variant> Session::remoteVariant(const char* types) {
  Settings settings = settings_;
  settings.setDefault("AutoBufferReadSize", kRemoteReadSize);
  if (types) settings.setDefault(kFrameTypes, types);
  return std::make_unique<Variant>(std::move(settings), synced_, module_);
}

// An object whose first and last tags aren't of the common types, or whose end is torn, is opened anew with
// all: its ends are in the cache by then.
Session::Opened Session::openRemote(const std::string& file, i64 size) {
  if (!remoteCommon_) remoteCommon_ = remoteVariant(kCommonTypes);
  IQVStreamAdaptor& common = *remoteCommon_->adaptor;
  void* const handle = open(common, file, kOpenForPlaying, nullptr);
  if (handle && (common.getEndPosition(handle) == size || settings_.find(kFrameTypes)))
    return {&common, handle};
  if (handle) common.close(handle);
  if (!remote_) remote_ = remoteVariant(nullptr);
  return openPlaying(*remote_->adaptor, file);
}

IQVStreamAdaptor& Session::farSeeing() {
  if (!farSeeing_) {
    Settings settings = settings_;
    settings.setSearchLimit(Settings::kMostSearchLimit);
    farSeeing_ = std::make_unique<Variant>(std::move(settings), synced_, module_);
  }
  return *farSeeing_->adaptor;
}

IQVStreamAdaptor& Session::shortSighted() {
  if (!shortSighted_) shortSighted_ = std::make_unique<Variant>(settings_, shortened_, module_);
  return *shortSighted_->adaptor;
}

Stream Session::open(const std::string& file, Look look) {
  const FileIdentity identity = checkReadable(file);
  Opened opened = openAsModuleDoes(file, identity);
  if (const auto more = openShortened(opened, file, identity.size, look)) {
    opened.adaptor->close(opened.handle);
    opened = *more;
  }
  return Stream(*opened.adaptor, opened.handle, file, identity);
}

Session::Opened Session::openPlaying(IQVStreamAdaptor& adaptor, const std::string& file) {
  void* const handle = open(adaptor, file, kOpenForPlaying, nullptr);
  if (!handle) throw fileFault(file + ": " + explainRefusal(file));
  return {&adaptor, handle};
}

Session::Opened Session::openAsModuleDoes(const std::string& file, const FileIdentity& identity) {
  const Opened opened =
      isRemote(file) ? openRemote(file, identity.size) : openPlaying(module_.adaptor(), file);
  if (!mayHideTags(opened.handle, identity)) return opened;
  report(fmt::format("{}: no whole tag in its last {} bytes (MaxBackFrameScan); searching the last {} bytes",
                     file, settings_.searchLimit(), Settings::kMostSearchLimit));
  opened.adaptor->close(opened.handle);
  return openPlaying(farSeeing(), file);
}

// None where that shows no more of the file.
std::optional<Session::Opened> Session::openShortened(const Opened& found, const std::string& file, i64 size,
                                                      Look look) {
  const bool foundNone = found.adaptor->getEndPosition(found.handle) == 0;
  const i64 end = found.adaptor->getSize(found.handle);
  if (isRemote(file) || end >= size || !settings_.playsTorn()) return std::nullopt;
  if (look == Look::asModuleDoes && !foundNone) return std::nullopt;
  const WholeTags more = followTags(ReadOnlyFile(file), end, size);
  if (more.count == 0) return std::nullopt;
  if (foundNone) {
    report(fmt::format("{}: no whole tag at its torn end; its tags are whole up to byte {}", file, more.end));
  }
  shortened_.shorten(moduleFileName(toModulePath(file)), size, more.end);
  return openPlaying(shortSighted(), file);
}

RecordStream Session::openForRecording(const std::string& file, IBackupConn* mirror) {
  errno = 0;
  void* const handle = open(module_.adaptor(), file, kOpenForRecording, mirror);
  if (handle) return RecordStream(module_.adaptor(), handle);
  if (const int error = errno) throw hostFault(file + ": " + std::strerror(error));
  throw fileFault(file + ": " + explainRefusal(file));
}

bool Session::recordsAllCodecs() const {
  const std::string* const codecs = settings_.find(Settings::kRecordCodecs);
  return codecs && *codecs != Settings::kClassic;
}

void Session::reportStats() const {
  if (!stats_) return;
  const FileCalls c = calls();
  report(fmt::format("opening: {} host calls, {} bytes read", openingCalls_, openingBytes_));
  report(fmt::format(
      "in all: {} host calls (open {}, close {}, read {}, write {}, fstat {}, stat {}), {} bytes read",
      c.total(), c.open, c.close, c.read, c.write, c.fstat, c.stat, c.bytesRead));
  const HttpRanges& http = RemoteFiles::shared().http();
  if (http.requests() > 0) {
    report(fmt::format("requests: {}, {} bytes received", http.requests(), http.bytesReceived()));
  }
  if (c.write > 0) report(fmt::format("written: {} bytes", c.bytesWritten));
}

}  // namespace orv::host
