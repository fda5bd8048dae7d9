// What the host gives the module at start: settings, a log, the file service.

#pragma once

#include "modules/streams/contract/Export.h"
#include "modules/streams/contract/IFileService.h"

// Levels of logMessage.
inline constexpr int kLogWarning = 2;
inline constexpr int kLogBadData = 3;

// Valid for as long as the adaptor and its streams live. Called from any thread that calls the adaptor.
class ORV_EXPORT IQVStreamContext {
  ORV_INTERFACE_MEMBERS(IQVStreamContext)

  ORV_MEMBER virtual ~IQVStreamContext() {}
  virtual void reserved() = 0;  // Not called by this module.
  // Copies a setting's text, NUL-terminated, to *buffer, which has room for `size` bytes, and returns 0.
  // Returns the room needed, terminator included, if that is more (above 1 MiB counts as no setting); a
  // negative number if there is no such setting.
  virtual int getConfigValue(const char* key, char** buffer, orv::u32 size) = 0;
  // `text` is UTF-8 and valid during the call. `flag` is always 1.
  virtual void logMessage(const char* text, int level, int flag) = 0;
  // Returns the same service on every call. It belongs to the host.
  virtual IFileService* getFileService() = 0;
};
