#include "host/module/HostContext.h"

#include <gtest/gtest.h>

#include "host/files/PosixFileService.h"

namespace orv::host {
namespace {

TEST(HostContext, givesATextToWhoeverBringsRoomForIt) {
  Settings settings;
  settings.assign("ReadSize=1");
  settings.assign("ReadSize=32768");
  settings.assign("FrameTypes=");
  settings.setDefault("ReadSize", "0");
  settings.setDefault("EnableAggMsgs", "false");
  PosixFileService files;
  HostContext context(settings, files, {});
  char block[8] = "?";
  char* buffer = block;
  EXPECT_EQ(context.getConfigValue("ReadSize", &buffer, 5), 6);
  EXPECT_STREQ(block, "?");
  EXPECT_EQ(context.getConfigValue("ReadSize", &buffer, 6), 0);
  EXPECT_STREQ(block, "32768");
  EXPECT_EQ(context.getConfigValue("EnableAggMsgs", &buffer, 8), 0);
  EXPECT_STREQ(block, "false");
  EXPECT_EQ(context.getConfigValue("FrameTypes", &buffer, 8), 0);
  EXPECT_STREQ(block, "");
  EXPECT_LT(context.getConfigValue("MaxSegSize", &buffer, 8), 0);
  char* none = nullptr;
  EXPECT_EQ(context.getConfigValue("ReadSize", &none, 64), 6);
}

TEST(HostContext, tellsEachLineOnceWithTheNativeName) {
  std::vector<std::string> lines;
  PosixFileService files;
  HostContext context({}, files, [&](const std::string& line) { lines.push_back(line); });
  context.nameFile("\\x\\f%C3.flv", "/x/f\xC3.flv");
  for (int i = 0; i < 3; ++i)
    context.logMessage("File contains bad data : \\x\\f%C3.flv (a.cpp:1)", kLogBadData, 1);
  context.logMessage("careful", kLogWarning, 1);
  EXPECT_EQ(lines, (std::vector<std::string>{"bad data: File contains bad data : /x/f\xC3.flv (a.cpp:1)",
                                             "warning: careful"}));
}

}  // namespace
}  // namespace orv::host
