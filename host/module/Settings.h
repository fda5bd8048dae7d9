// The module's settings as a user gives them.

#pragma once

#include <map>
#include <string>

#include "platform/Types.h"

namespace orv::host {

// The module says nothing of keys that it doesn't know, and silently ignores values that it can't use. So
// both are refused here.
class Settings {
 public:
  // `assignment` is "Key=Value"; a later one of the same key wins. Throws Failure where there is no "=" or no
  // such key.
  void assign(const std::string& assignment);
  // Sets what was not assigned.
  void setDefault(const std::string& key, const std::string& value) { values_.try_emplace(key, value); }
  // Returns null for a key that has no value.
  const std::string* find(const std::string& key) const;
  // Returns the settings themselves. Throws Failure, with what would do, if the module would ignore one of
  // the values. To be called when all are there: one of them is the lower bound of others.
  const Settings& checked() const;

  // Whether the module shows the front of a file with a torn end.
  bool playsTorn() const;

  // Which codecs the module records: "all", or those of the oldest players alone.
  static constexpr char kRecordCodecs[] = "RecordCodecs";
  static constexpr char kClassic[] = "classic";

  // How far the module searches back for a file's last sound tag, in bytes.
  static constexpr u32 kMostSearchLimit = 0x1000000;
  u32 searchLimit() const;
  void setSearchLimit(u32 bytes);

 private:
  u32 number(const std::string& key, u32 otherwise) const;

  std::map<std::string, std::string> values_;
};

}  // namespace orv::host
