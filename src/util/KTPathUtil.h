// Rules of paths. The backslash separates; a drive root is "C:\", with a colon at index 1.

#pragma once

#include "util/KTWideString.h"

namespace orv::util::paths {

// The text behind the last backslash, or the whole path when there is none.
KTWideString fileName(const KTWideString& path);

// The text before the last backslash, which a drive root keeps; moduleDirectory() when there is none.
KTWideString parentDirectory(const KTWideString& path);

// Drops one last backslash, except that of a drive root; a bare "C:" gains one.
KTWideString stripTrailingSeparator(const KTWideString& path);

// Has two backslashes in a row anywhere, or a colon at index 1. A path with one backslash in front does not
// count.
bool isAbsolute(const KTWideString& path);

// Every slash becomes a backslash.
KTWideString toBackslashes(const KTWideString& path);
// Two leading backslashes are dropped, or else a colon at index 1; then every backslash becomes a slash.
KTWideString toForwardSlashes(const KTWideString& path);

// `relative` under `base`, in `*out`, with backslashes only unless `relative` is empty. An absolute
// `relative` is the result itself, as it stands, when `allowAbsolute` is set, and a failure when it is not.
// Unless `allowDotDot` is set, a failure also when the first ".." in `relative` is a path element; what
// follows the first one is not looked at, so the join alone keeps nobody in. After a failure `*out` holds
// `base` with a backslash. The three may be one object.
bool join(const KTWideString& base, const KTWideString& relative, KTWideString* out, bool allowAbsolute,
          bool allowDotDot);

// Every character that a file name can't hold becomes "_".
KTWideString safeFileName(const KTWideString& text);

// The directory of the running program, with a backslash behind it. Throws KTException with
// "GetModuleFileName failed. Error was " and the system's error number when there is no telling, or when its
// name isn't wide text.
KTWideString moduleDirectory();

// As the operating system takes it: UTF-8 with slashes, for characters of up to 16 bits; what lies above
// can't be named. Empty for a path with a character of value 0, which would name another file.
KTString toNative(const KTWideString& path);

}  // namespace orv::util::paths
