// The bytes that open values on the wire, and the words of the records that stand for AMF3 forms. The AMF0
// markers are the type codes of KTData.

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

// The variable integer: seven bits a byte, with this bit where another byte follows.
inline constexpr u8 kMoreFollows = 0x80;

inline constexpr i32 kLeastInteger = -(1 << 28);
inline constexpr i32 kGreatestInteger = (1 << 28) - 1;
inline constexpr u32 kIntegerMask = 0x1FFFFFFF;

// The header of a form that may be a reference: bit 0 where it follows inline, above it the index, length or
// count.
inline constexpr u32 kInline = 1;
inline constexpr u32 kGreatestLength = (1 << 28) - 1;

// The header of an object: bit 0 inline, bit 1 inline class, bit 2 externalizable, bit 3 dynamic.
inline constexpr u32 kClassKindMask = 3;
inline constexpr u32 kKnownClass = 1;
inline constexpr u32 kExternalizable = 7;
inline constexpr u32 kDynamic = 8;
inline constexpr u32 kMemberCountShift = 4;

// A vector's record has its size, the flag "fixed" and, for objects, a class name; then its elements. A
// dictionary's has its size and the flag "weak", then keys and values in turn.
inline constexpr char kSizeKey[] = "size";
inline constexpr char kFixedKey[] = "fixed";
inline constexpr char kWeakKey[] = "weak";
inline constexpr char kVectorClassKey[] = "closure";
inline constexpr char kKeyKey[] = "key";
inline constexpr char kValueKey[] = "value";
inline constexpr u32 kFlagEntry = 1;
inline constexpr u32 kVectorClassEntry = 2;

// Entries in front of the elements.
constexpr u32 recordHeaderSize(u8 marker) {
  return marker == kVectorObject ? 3 : 2;
}

}  // namespace orv::amf3

namespace orv::amf {

// The object encoding in which a writer sends AMF3; 0 stands for AMF0.
inline constexpr i32 kAmf3Encoding = 3;

// The first entry of an object that has a class: its key, and the name that stands for having none.
inline constexpr char kClassKey[] = "constructor";
inline constexpr char kPlainClass[] = "Object";

}  // namespace orv::amf
