// The bytes that open values on the wire. The AMF0 markers are the type codes of KTData.

#pragma once

#include "platform/Types.h"

namespace orv::amf3 {

enum Marker : u8 {
  kUndefined = 0,
  kNull = 1,
  kFalse = 2,
  kTrue = 3,
  kInteger = 4,  // 29 bits, signed
  kDouble = 5,
  kString = 6,
  kXmlDocument = 7,
  kDate = 8,
  kArray = 9,
  kObject = 10,
  kXml = 11,
  kByteArray = 12,
  kVectorInt = 13,
  kVectorUint = 14,
  kVectorDouble = 15,
  kVectorObject = 16,
  kDictionary = 17,
};

inline bool isVector(u8 marker) {
  return marker >= kVectorInt && marker <= kVectorObject;
}

inline constexpr i32 kLeastInteger = -(1 << 28);
inline constexpr i32 kGreatestInteger = (1 << 28) - 1;
inline constexpr u32 kIntegerMask = 0x1FFFFFFF;
// The longest length or count that a header can tell beside its reference bit.
inline constexpr u32 kGreatestLength = (1 << 28) - 1;

}  // namespace orv::amf3

namespace orv::amf {

// The first entry of an object that has a class: its key, and the name that stands for having none.
inline constexpr char kClassKey[] = "constructor";
inline constexpr char kPlainClass[] = "Object";

}  // namespace orv::amf
