#include "util/KTThrowable.h"

#include <cstring>

void assertFailed(const char* file, [[maybe_unused]] int line) {
  [[maybe_unused]] const char* const place = orv::util::projectPath(file);
}

namespace orv::util {

const char* projectPath(const char* file) {
  constexpr char kRoot[] = "/src/";
  if (!file) return "";
  const char* found = file;
  for (const char* at = file; (at = std::strstr(at, kRoot)); ++at) found = at + 1;
  return found;
}

}  // namespace orv::util
