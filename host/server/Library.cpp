#include "host/server/Library.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "host/module/FileSummary.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMostListed = 1000;
constexpr std::size_t kMostRecent = 32;
// A file that somebody else writes counts as live while its last change is no older.
constexpr std::chrono::seconds kLiveTime{5};

CommonOptions readingOptions(CommonOptions common) {
  common.settings.setDefault("EnableAggMsgs", "false");  // Pieces keep the file's order of tags.
  common.settings.setDefault("AutoBufferReadSize", "65536");
  return common;
}

std::string canonicalFolder(const std::string& name) {
  std::error_code error;
  const fs::path path = fs::canonical(name, error);
  if (error || !fs::is_directory(path)) throw hostFault(name + ": is not a folder");
  return path.native();
}

}  // namespace

Library::Library(LibraryOptions options, Pool pool)
    : options_(std::move(options)),
      root_(canonicalFolder(options_.folder)),
      pool_(std::move(pool)),
      cache_(options_.cacheBytes),
      session_(readingOptions(options_.common)) {}

std::string Library::pathOf(const std::string& name, bool mustExist) const {
  const fs::path asked = fs::path(root_) / name;
  std::error_code error;
  const fs::path folder = fs::canonical(asked.parent_path(), error);
  if (error) throw NotServed();
  fs::path path = folder / asked.filename();
  const auto status = fs::symlink_status(path, error);
  if (fs::is_symlink(status)) path = fs::canonical(path, error);
  if ((error && mustExist) || (fs::is_symlink(status) && error)) throw NotServed();
  const std::string text = path.native();
  if (text.compare(0, root_.size(), root_) != 0 || (root_ != "/" && text[root_.size()] != '/'))
    throw NotServed();
  const bool isFile = fs::is_regular_file(path, error);
  if (!isFile && (mustExist || fs::exists(path, error))) throw NotServed();
  return text;
}

std::shared_ptr<SharedFile> Library::open(const std::string& name) {
  const std::string path = pathOf(name, true);
  std::shared_ptr<SharedFile> old;  // Let go of outside the lock.
  {
    const std::lock_guard lock(mutex_);
    old = files_[name].lock();
  }
  if (old && !old->isReplaced()) return old;
  const std::lock_guard lock(mutex_);
  // Whoever asked at the same time shares what came first.
  if (auto other = files_[name].lock(); other && other != old) return other;
  auto file = std::make_shared<SharedFile>(
      path, ++lastNumber_, cache_,
      SharedFile::Surroundings{pool_, [this](const std::string& which) { return openStream(which); },
                               [this, name](const struct stat& status) { return mayGrow(name, status); },
                               [this, name](const FileIdentity& which) { return setupsOf(name, which); },
                               faults_});
  files_[name] = file;
  if (old) replaced_.push_back(old);
  recent_.push_back(file);
  if (recent_.size() > kMostRecent) recent_.pop_front();
  return file;
}

Stream Library::openStream(const std::string& file) {
  const std::lock_guard lock(sessionMutex_);
  return session_.open(file);
}

// A recording may go on in a new file of the name: the old one ends then.
bool Library::mayGrow(const std::string& name, const struct stat& status) {
  const std::lock_guard lock(mutex_);
  if (const auto place = published_.find(name); place != published_.end()) {
    const auto& file = place->second.file;
    return !file || file->isSame({status.st_dev, status.st_ino, status.st_size});
  }
  dropOldEnds();
  const auto isThis = [&](const Ended& ended) { return ended.name == name; };
  if (std::any_of(ended_.begin(), ended_.end(), isThis)) return false;
  return std::time(nullptr) - status.st_mtime < kLiveTime.count();
}

// The caller holds mutex_.
void Library::dropOldEnds() {
  const auto now = std::chrono::steady_clock::now();
  while (!ended_.empty() && now - ended_.front().time > kLiveTime) ended_.pop_front();
}

bool Library::isPublished(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return published_.contains(name);
}

bool Library::claim(const std::string& name) {
  const std::lock_guard lock(mutex_);
  return published_.try_emplace(name).second;
}

void Library::begun(const std::string& name) {
  std::vector<std::function<void()>> waiting;
  {
    const std::lock_guard lock(mutex_);
    Published& entry = published_[name];
    entry.isBeginning = false;
    waiting = std::exchange(entry.waiting, {});
  }
  for (const auto& call : waiting) call();
}

bool Library::awaitBeginning(const std::string& name, std::function<void()> then) {
  const std::lock_guard lock(mutex_);
  const auto place = published_.find(name);
  if (place == published_.end() || !place->second.isBeginning) return false;
  place->second.waiting.push_back(std::move(then));
  return true;
}

void Library::release(const std::string& name) {
  begun(name);
  {
    const std::lock_guard lock(mutex_);
    const auto place = published_.find(name);
    dropOldEnds();
    if (place->second.file) ended_.push_back({name, std::chrono::steady_clock::now()});
    published_.erase(place);
  }
  wake(name);
}

void Library::noteFlush(const std::string& name, const FileIdentity& file, const SetupList& setups) {
  const std::lock_guard lock(mutex_);
  Published& entry = published_[name];
  entry.file = file;
  entry.setups = setups;
}

std::optional<SetupList> Library::setupsOf(const std::string& name, const FileIdentity& file) const {
  const std::lock_guard lock(mutex_);
  const auto place = published_.find(name);
  if (place == published_.end() || !place->second.file || !place->second.file->isSame(file))
    return std::nullopt;
  return place->second.setups;
}

void Library::wake(const std::string& name) {
  std::shared_ptr<SharedFile> file;
  {
    const std::lock_guard lock(mutex_);
    const auto place = files_.find(name);
    if (place != files_.end()) file = place->second.lock();
  }
  if (file) file->wake();
}

void Library::wakeAll() {
  std::vector<std::shared_ptr<SharedFile>> waiting;
  // False if it has gone.
  const auto look = [&](const std::weak_ptr<SharedFile>& weak) {
    const auto file = weak.lock();
    if (file && file->hasWaiting()) waiting.push_back(file);
    return file != nullptr;
  };
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(files_, [&](const auto& entry) { return !look(entry.second); });
    std::erase_if(replaced_, [&](const auto& weak) { return !look(weak); });
  }
  for (const auto& file : waiting) file->wake();
}

std::size_t Library::openFiles() const {
  const std::lock_guard lock(mutex_);
  return files_.size() + replaced_.size();
}

std::vector<std::string> Library::published() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto& [name, entry] : published_) names.push_back(name);
  return names;
}

nlohmann::ordered_json Library::describe(const std::string& name) {
  const auto file = open(name);
  const FileSummary summary = file->with([](Stream& stream) { return summarize(stream, Depth::front); });
  const auto codec = [](const auto& tag) { return tag ? nlohmann::ordered_json(tag->codec) : nullptr; };
  const double seconds = std::max(summary.duration, 1u) / 1000.0;
  return {{"name", name},
          {"size", summary.playableEnd},
          {"duration", timeJson(summary.duration)},
          {"video", codec(summary.video)},
          {"audio", codec(summary.audio)},
          {"bitsPerSecond", static_cast<u64>(static_cast<double>(summary.playableEnd) * 8 / seconds)},
          {"live", isPublished(name)}};
}

nlohmann::ordered_json Library::list() {
  auto files = nlohmann::ordered_json::array();
  std::set<std::string> names;
  std::error_code error;
  auto walk = fs::recursive_directory_iterator(root_, fs::directory_options::skip_permission_denied, error);
  for (; !error && walk != fs::recursive_directory_iterator() && names.size() < kMostListed;
       walk.increment(error)) {
    const std::string name = walk->path().native().substr(root_.size() + (root_ == "/" ? 0 : 1));
    if (isServedName(name)) names.insert(name);
  }
  for (const std::string& name : names) {
    try {
      files.push_back(describe(name));
    } catch (const NotServed&) {
      continue;
    } catch (const Failure&) {
      continue;  // No file to play; asking for it says why.
    }
  }
  return {{"files", std::move(files)}};
}

}  // namespace orv::host
