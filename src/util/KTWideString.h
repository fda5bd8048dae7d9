// Wide text: 16-bit code units, one for each character; surrogates are not paired.

#pragma once

#include <cstdarg>

#include "util/KTString.h"

class KTWideString : public orv::util::hidden::KTText<KTWideString, char16_t> {
 public:
  using KTText::KTText;
  using KTText::operator=;

  // "%d" and its like for integers, "%p" for a pointer, "%f" for a double.
  static KTWideString fromNumber(i16 value) { return fromNumber(static_cast<i32>(value)); }
  static KTWideString fromNumber(i32 value);
  static KTWideString fromNumber(u32 value);
  static KTWideString fromNumber(i64 value);
  static KTWideString fromNumber(u64 value);
  static KTWideString fromNumber(const void* value);
  static KTWideString fromNumber(double value);

  // From the console code page (platform/CodePage.h), up to the NUL.
  static KTWideString fromAnsi(const char* text);

  // As KTString's, by way of the narrow text.
  i32 toInt() const;
  i32 toLong() const { return toInt(); }
  i64 toInt64() const;
  double toDouble() const;

  // Becomes the printed text (platform/WideFormat.h), with "%S" and "%C" for wide arguments and "%s" and "%c"
  // for narrow ones. A flag, width or size in between turns that round: "%-8s" takes a wide text. Becomes
  // empty when the result has more than 65,535 characters or the format is unusable. The arguments may be
  // this text's own.
  KTWideString& format(const char16_t* pattern, ...);
  KTWideString& formatList(const char16_t* pattern, std::va_list arguments);
};

static_assert(sizeof(KTWideString) == sizeof(void*), "a string is one pointer");

// UTF-8 as platform/Utf8.h tells.
KTString toNarrow(const KTWideString& wide);
// Empty when one sequence is invalid.
KTWideString toWide(const KTString& narrow);
