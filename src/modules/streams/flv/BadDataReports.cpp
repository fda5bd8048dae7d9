#include "modules/streams/flv/BadDataReports.h"

#include <cstring>

namespace orv::flv {
namespace {

KTWideString bareName(const char* sourcePath) {
  const char* const slash = std::strrchr(sourcePath, '/');
  return toWide(KTString(slash ? slash + 1 : sourcePath));
}

}  // namespace

void BadDataReports::reportBadData(const char* file, int line) {
  if (usedUp()) return;
  KTWideString text;
  text.format(u"File contains bad data : %S (%S:%d)", path_.c_str(), bareName(file).c_str(), line);
  context_->logMessage(toNarrow(text).c_str(), kLogBadData, 1);
  ++badDataCount_;
}

}  // namespace orv::flv
