#include "util/KTPathUtil.h"

#include <cerrno>
#include <string>

#include "platform/Descriptor.h"
#include "platform/Directory.h"
#include "util/KTThrowable.h"

namespace orv::util::paths {

namespace {

constexpr char16_t kSeparator = u'\\', kSlash = u'/', kColon = u':';
constexpr i32 kColonIndex = 1, kRootIndex = 2;

using View = KTWideString::View;

bool isSeparator(char16_t character) {
  return character == kSeparator || character == kSlash;
}

bool endsInSeparator(const KTWideString& path) {
  return path[path.length() - 1] == kSeparator;
}

bool hasDrive(const KTWideString& path) {
  return path[kColonIndex] == kColon;
}

KTWideString mapped(View text, auto map) {
  std::u16string result(text);
  for (char16_t& character : result) character = map(character);
  return {result.data(), static_cast<i64>(result.size())};
}

// Whether the first ".." is a whole element.
bool leavesItsDirectory(View path) {
  const std::size_t at = path.find(u"..");
  if (at == View::npos) return false;
  const std::size_t behind = at + 2;
  return (at == 0 || isSeparator(path[at - 1])) && (behind == path.size() || isSeparator(path[behind]));
}

}  // namespace

KTWideString fileName(const KTWideString& path) {
  return path.substring(path.rfind(kSeparator) + 1);
}

KTWideString parentDirectory(const KTWideString& path) {
  const i32 last = path.rfind(kSeparator);
  if (last < 0) return moduleDirectory();
  return path.left(last == kRootIndex && hasDrive(path) ? last + 1 : last);
}

KTWideString stripTrailingSeparator(const KTWideString& path) {
  const bool isDrive = hasDrive(path);
  if (isDrive && path.length() == kRootIndex) return path + kSeparator;
  if (!endsInSeparator(path) || (isDrive && path.length() == kRootIndex + 1)) return path;
  return path.left(path.length() - 1);
}

bool isAbsolute(const KTWideString& path) {
  return path.find(u"\\\\") >= 0 || hasDrive(path);
}

KTWideString toBackslashes(const KTWideString& path) {
  return mapped(path.view(),
                [](char16_t character) { return isSeparator(character) ? kSeparator : character; });
}

KTWideString toForwardSlashes(const KTWideString& path) {
  std::u16string text(path.view());
  if (text.starts_with(u"\\\\")) {
    text.erase(0, 2);
  } else if (hasDrive(path)) {
    text.erase(kColonIndex, 1);
  }
  return mapped(text, [](char16_t character) { return character == kSeparator ? kSlash : character; });
}

bool join(const KTWideString& base, const KTWideString& relative, KTWideString* out, bool allowAbsolute,
          bool allowDotDot) {
  const bool absolute = isAbsolute(toBackslashes(relative));
  if (absolute && allowAbsolute) {
    *out = relative;
    return true;
  }
  KTWideString joined(base);
  if (!joined.empty() && !endsInSeparator(joined)) joined += kSeparator;
  const bool good = !absolute && (allowDotDot || !leavesItsDirectory(relative.view()));
  if (good && !relative.empty())
    joined = toBackslashes(joined + relative.substring(isSeparator(relative[0]) ? 1 : 0));
  *out = joined;
  return good;
}

KTWideString safeFileName(const KTWideString& text) {
  static constexpr View kForbidden = u"\\/:*?\"<>|";
  return mapped(text.view(), [](char16_t character) {
    return kForbidden.find(character) == View::npos ? character : u'_';
  });
}

KTWideString moduleDirectory() {
  std::string native;
  const bool found = orv::platform::executablePath(&native);
  const KTWideString path = toBackslashes(toWide(native.c_str()));
  if (!found || path.empty()) {
    const int error = found ? EILSEQ : orv::platform::lastErrorCode();
    throw KTException(u"GetModuleFileName failed. Error was " + KTWideString::fromNumber(error));
  }
  return path.left(path.rfind(kSeparator) + 1);
}

KTString toNative(const KTWideString& path) {
  if (path.find(u'\0') >= 0) return {};
  return toNarrow(
      mapped(path.view(), [](char16_t character) { return character == kSeparator ? kSlash : character; }));
}

}  // namespace orv::util::paths
