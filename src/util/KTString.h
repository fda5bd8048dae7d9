// Narrow text: UTF-8 or plain bytes.

#pragma once

#include "util/KTText.h"

class KTString : public orv::util::hidden::KTText<KTString, char> {
 public:
  using KTText::KTText;
  using KTText::operator=;

  // "%d" and its like for integers, "%p" for a pointer, 17 significant digits in general format for a double.
  // Doubles have the decimal point of the process's numeric locale, here and in toDouble.
  static KTString fromNumber(orv::i16 value) { return fromNumber(static_cast<orv::i32>(value)); }
  static KTString fromNumber(orv::i32 value);
  static KTString fromNumber(orv::u32 value);
  static KTString fromNumber(orv::i64 value);
  static KTString fromNumber(orv::u64 value);
  static KTString fromNumber(long long value) { return fromNumber(static_cast<orv::i64>(value)); }
  static KTString fromNumber(unsigned long long value) { return fromNumber(static_cast<orv::u64>(value)); }
  static KTString fromNumber(const void* value);
  static KTString fromNumber(double value);

  // Returns two lower-case digits for each byte, high nibble first.
  static KTString hexOf(const void* bytes, orv::u32 length);

  // Return the number at the front of the text; 0 if there is none, the nearest limit if it is out of range.
  orv::i32 toInt() const;
  orv::i32 toLong() const { return toInt(); }  // `long` has 32 bits.
  orv::i64 toInt64() const;
  double toDouble() const;

  // Keeps letters, digits, bytes below 26 or above 127, and a blank unless `encodeBlank` is set. Every other
  // byte becomes "%" and two lower-case hexadecimal digits.
  KTString urlEncode(bool encodeBlank) const;
  // Turns "%" and the one or two hexadecimal digits behind it into one byte, in place; all else stays.
  KTString& urlDecode();
};

static_assert(sizeof(KTString) == sizeof(void*), "a string is one pointer");
