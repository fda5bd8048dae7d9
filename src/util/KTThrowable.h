// The tree of exceptions, thrown by value and caught by class, and the report of a check that does not hold.

#pragma once

#include "util/KTWideString.h"

// A host may catch what the shared library throws by class and by reference, without linking against it:
// KTThrowable, KTException and KTBreakConnection are visible in the library's type information, and have no
// member out of line that a catch clause would need.
class ORV_EXPORT KTThrowable {
 public:
  KTThrowable() = default;
  KTThrowable(const KTThrowable&) = default;
  KTThrowable& operator=(const KTThrowable&) = default;
  virtual ~KTThrowable() = default;
};

class ORV_EXPORT KTException : public KTThrowable {
 public:
  KTException() = default;
  explicit KTException(const KTWideString& text) : message(text) {}
  KTException(const KTException&) = default;
  KTException& operator=(const KTException&) = default;
  ~KTException() override = default;

  KTWideString message;
};

// An allocation of the library failed. Making one allocates nothing.
class ORV_EXPORT KTOutOfMemory : public KTException {
 public:
  KTOutOfMemory() = default;
  KTOutOfMemory(const KTOutOfMemory&) = default;
  KTOutOfMemory& operator=(const KTOutOfMemory&) = default;
  ~KTOutOfMemory() override = default;
};

// The data in hand can't be parsed; the connection or stream that delivered it should go.
class ORV_EXPORT KTBreakConnection : public KTException {
 public:
  static constexpr orv::u32 kMalformedData = 0xC0000405;

  explicit KTBreakConnection(orv::u32 reason = kMalformedData) : code(reason) {}
  KTBreakConnection(const KTBreakConnection&) = default;
  KTBreakConnection& operator=(const KTBreakConnection&) = default;
  ~KTBreakConnection() override = default;

  orv::u32 code;
};

// A check that didn't hold. Reports nothing, stops nothing and changes nothing: the code behind the check
// goes on. This is the place for a breakpoint.
void assertFailed(const char* file, int line);

// Reports a condition that doesn't hold, and yields its value, so that the caller can turn back.
#define KT_HOLDS(condition) ((condition) || (assertFailed(__FILE__, __LINE__), false))
#define KT_ASSERT(condition) ((condition) ? void() : assertFailed(__FILE__, __LINE__))

namespace orv::util {

// Returns the part of a source path that starts at the project's own folders; the whole path if it holds none
// of them.
const char* projectPath(const char* file);

}  // namespace orv::util
