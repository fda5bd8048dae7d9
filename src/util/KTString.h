// Narrow text: UTF-8 or plain bytes.

#pragma once

#include "util/KTText.h"

class KTString : public orv::util::hidden::KTText<KTString, char> {
 public:
  using KTText::KTText;
  using KTText::operator=;

  // "%d" and its like for integers, "%p" for a pointer, 17 significant digits in general format for a double.
  // Doubles have the decimal point of the process's numeric locale, here and in toDouble.
  static KTString fromNumber(i16 value) { return fromNumber(static_cast<i32>(value)); }
  static KTString fromNumber(i32 value);
  static KTString fromNumber(u32 value);
  static KTString fromNumber(i64 value);
  static KTString fromNumber(u64 value);
  static KTString fromNumber(const void* value);
  static KTString fromNumber(double value);

  // Two lower-case digits for each byte, high nibble first.
  static KTString hexOf(const void* bytes, u32 length);

  // The number at the front of the text, 0 when there is none; a number out of range gives the nearest limit.
  i32 toInt() const;
  i32 toLong() const { return toInt(); }  // `long` has 32 bits.
  i64 toInt64() const;
  double toDouble() const;

  // Letters, digits, bytes below 26 or above 127 stay, and a blank unless `encodeBlank` is set; every other
  // byte becomes "%" and two lower-case hexadecimal digits.
  KTString urlEncode(bool encodeBlank) const;
  // In place: "%" with one or two hexadecimal digits behind it becomes one byte; all else stays.
  KTString& urlDecode();
};

static_assert(sizeof(KTString) == sizeof(void*), "a string is one pointer");
