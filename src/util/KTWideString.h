// Wide text: 16-bit code units, one for each character; surrogates are not paired.

#pragma once

#include <cstdarg>

#include "util/KTString.h"

class KTWideString : public orv::util::hidden::KTText<KTWideString, char16_t> {
 public:
  using KTText::KTText;
  using KTText::operator=;

  // "%d" and its like for integers, "%p" for a pointer, "%f" for a double.
  static KTWideString fromNumber(orv::i16 value) { return fromNumber(static_cast<orv::i32>(value)); }
  static KTWideString fromNumber(orv::i32 value);
  static KTWideString fromNumber(orv::u32 value);
  static KTWideString fromNumber(orv::i64 value);
  static KTWideString fromNumber(orv::u64 value);
  static KTWideString fromNumber(long long value) { return fromNumber(static_cast<orv::i64>(value)); }
  static KTWideString fromNumber(unsigned long long value) {
    return fromNumber(static_cast<orv::u64>(value));
  }
  static KTWideString fromNumber(const void* value);
  static KTWideString fromNumber(double value);

  // Converts from the console code page (platform/CodePage.h), up to the NUL.
  static KTWideString fromAnsi(const char* text);

  // Return what KTString's return for the narrow text.
  orv::i32 toInt() const;
  orv::i32 toLong() const { return toInt(); }
  orv::i64 toInt64() const;
  double toDouble() const;

  // Becomes the printed text (platform/WideFormat.h): "%S" and "%C" take wide arguments, "%s" and "%c" narrow
  // ones. With a flag, width or size in between it is the other way round: "%-8s" takes a wide text. Becomes
  // empty if the result has more than 65,535 characters or the format can't be used. The arguments may lie in
  // this text.
  KTWideString& format(const char16_t* pattern, ...);
  KTWideString& formatList(const char16_t* pattern, std::va_list arguments);
};

static_assert(sizeof(KTWideString) == sizeof(void*), "a string is one pointer");

// To and from UTF-8, as platform/Utf8.h describes it.
KTString toNarrow(const KTWideString& wide);
// Returns an empty text if one sequence is invalid.
KTWideString toWide(const KTString& narrow);
