// The part of a host that every test host shares: settings and log.

#pragma once

#include <algorithm>
#include <cstring>
#include <map>
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
  void logMessage(const char* text, int level, int flag) override { log.push_back({text, level, flag}); }
};

}  // namespace orv::test
