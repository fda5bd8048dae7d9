#include "host/module/HostContext.h"

#include <fmt/format.h>

#include <cstring>

namespace orv::host {

namespace {

// Beyond it, lines are lost: a file that is bad all over must not fill the host's memory.
constexpr std::size_t kMostLines = 1000;

const char* levelName(int level) {
  return level == kLogBadData ? "bad data" : level == kLogWarning ? "warning" : "note";
}

}  // namespace

HostContext::HostContext(Settings settings, IFileService& files, LogSink sink)
    : settings_(std::move(settings)), files_(files), sink_(std::move(sink)) {}

int HostContext::getConfigValue(const char* key, char** buffer, u32 size) {
  const std::string* const value = settings_.find(key);
  if (!value) return -1;
  const std::size_t room = value->size() + 1;
  if (room > size || !*buffer) return static_cast<int>(room);
  std::memcpy(*buffer, value->c_str(), room);
  return 0;
}

void HostContext::nameFile(const std::string& moduleFile, const std::string& native) {
  const std::lock_guard lock(mutex_);
  nativeNames_[moduleFile] = native;
}

void HostContext::logMessage(const char* text, int level, int) {
  std::string line = fmt::format("{}: {}", levelName(level), text);
  const std::lock_guard lock(mutex_);
  for (const auto& [moduleFile, native] : nativeNames_) {
    const std::size_t at = line.find(moduleFile);
    if (at != std::string::npos) line.replace(at, moduleFile.size(), native);
  }
  if (told_.size() < kMostLines && told_.insert(line).second) sink_(line);
}

}  // namespace orv::host
