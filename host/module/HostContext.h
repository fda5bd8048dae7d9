// What the module gets from its host at start: settings, a log, the file service.

#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "host/module/Settings.h"
#include "modules/streams/contract/IQVStreamContext.h"

namespace orv::host {

// Safe from any thread once built.
class HostContext final : public IQVStreamContext {
 public:
  // Gets each line of the module once, however often the module repeats it; `line` starts with its level and
  // names files natively. Called with a lock held: it must not call the module.
  using LogSink = std::function<void(const std::string& line)>;

  HostContext(Settings settings, IFileService& files, LogSink sink);

  void reserved() override {}
  int getConfigValue(const char* key, char** buffer, u32 size) override;
  void logMessage(const char* text, int level, int flag) override;
  IFileService* getFileService() override { return &files_; }

  // From now on log lines that name `moduleFile` say `native`.
  void nameFile(const std::string& moduleFile, const std::string& native);

 private:
  const Settings settings_;
  IFileService& files_;
  const LogSink sink_;
  std::mutex mutex_;
  // Under mutex_.
  std::map<std::string, std::string> nativeNames_;
  std::set<std::string> told_;
};

}  // namespace orv::host
