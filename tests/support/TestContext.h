// The part of a host that every test host shares: settings and log.

#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "modules/streams/contract/IQVStreamContext.h"

namespace orv::test {

struct LogLine {
  std::string text;
  int level;
  int flag;
};

class TestContext : public IQVStreamContext {
 public:
  std::map<std::string, std::string> settings;
  std::vector<std::string> askedKeys;  // In the order asked, repetitions included.
  std::vector<LogLine> log;

  void reserved() override {}
  int getConfigValue(const char* key, char** buffer, u32 size) override {
    askedKeys.emplace_back(key);
    const auto found = settings.find(key);
    if (found == settings.end()) return -1;
    const u32 room = static_cast<u32>(found->second.size()) + 1;
    if (room > size) return static_cast<int>(room);
    std::memcpy(*buffer, found->second.c_str(), room);
    return 0;
  }
  // From any thread; the test's own look at `log` is not guarded.
  void logMessage(const char* text, int level, int flag) override {
    const std::lock_guard lock(logMutex_);
    log.push_back({text, level, flag});
  }

 private:
  std::mutex logMutex_;
};

}  // namespace orv::test
