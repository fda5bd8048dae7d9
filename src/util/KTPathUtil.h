// Rules of paths. The backslash separates; a drive root is "C:\", with a colon at index 1.

#pragma once

#include "util/KTWideString.h"

namespace orv::util::paths {

// The text behind the last backslash, or the whole path when there is none.
KTWideString fileName(const KTWideString& path);

// Returns the text before the last backslash, which a drive root keeps; moduleDirectory() if there is none.
KTWideString parentDirectory(const KTWideString& path);

// Drops one last backslash, except that of a drive root; a bare "C:" gains one.
KTWideString stripTrailingSeparator(const KTWideString& path);

// Returns whether the path has two backslashes in a row anywhere, or a colon at index 1. One backslash in
// front does not make it absolute.
bool isAbsolute(const KTWideString& path);

// Turns every slash into a backslash.
KTWideString toBackslashes(const KTWideString& path);
// Drops two leading backslashes, or else a colon at index 1; then turns every backslash into a slash.
KTWideString toForwardSlashes(const KTWideString& path);

// Puts `relative` under `base` in `*out`, with backslashes only unless `relative` is empty. A `relative` that
// is absolute, or becomes so once its slashes are turned, is the result as it stands if `allowAbsolute` is
// set, and a failure if not. Unless `allowDotDot` is set, it is also a failure if the first ".." in
// `relative` is a path element; later ones are not looked at, so the join alone keeps nobody in. Returns
// false on failure, with `base` and a backslash in `*out`. The three may be one object.
bool join(const KTWideString& base, const KTWideString& relative, KTWideString* out, bool allowAbsolute,
          bool allowDotDot);

// Every character that a file name can't hold becomes "_".
KTWideString safeFileName(const KTWideString& text);

// Returns the directory of the running program, with a backslash behind it. Throws KTException with
// "GetModuleFileName failed. Error was " and the system's error number if it can't be found out or isn't
// valid UTF-8.
KTWideString moduleDirectory();

// Converts to what the operating system takes: UTF-8 with slashes, one sequence for each 16-bit character.
// Returns an empty text for a path with a character of value 0, which would name another file.
KTString toNative(const KTWideString& path);

}  // namespace orv::util::paths
