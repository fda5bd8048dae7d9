#include "platform/Calendar.h"

#include <algorithm>
#include <cwchar>
#include <string>
#include <vector>

namespace orv::platform {

bool breakDown(i64 seconds, Zone zone, std::tm* time) {
  const std::time_t value = seconds;
  if (zone == Zone::kLocal) tzset();  // As mktime does: both directions follow a change of TZ.
  return (zone == Zone::kUtc ? gmtime_r(&value, time) : localtime_r(&value, time)) != nullptr;
}

// -1 may be a time: the weekday shows a failure, for it is set whenever the call succeeds.
bool localSeconds(std::tm time, i64* seconds) {
  time.tm_wday = -1;
  const std::time_t value = std::mktime(&time);
  if (time.tm_wday < 0) return false;
  *seconds = value;
  return true;
}

std::size_t printTime(char16_t* out, std::size_t size, const char16_t* format, const std::tm& time) {
  const std::wstring pattern(format, format + std::char_traits<char16_t>::length(format));
  std::vector<wchar_t> text(size);
  const std::size_t length = std::wcsftime(text.data(), size, pattern.c_str(), &time);
  std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length), out,
                 [](wchar_t character) { return static_cast<char16_t>(character); });
  if (size > 0) out[length] = 0;
  return length;
}

}  // namespace orv::platform
