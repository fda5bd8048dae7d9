// A plain tagged value for the host's use. Strings and buffers are borrowed, never copied.

#pragma once

#include "modules/streams/contract/Export.h"

struct ORV_EXPORT OrvVariant {
  struct Buffer {
    unsigned char* data;
    orv::u32 length;
  };

  orv::u32 type;
  union {
    orv::u8 asU8;
    orv::u16 asU16;
    orv::u32 asU32;
    orv::i8 asI8;
    orv::i16 asI16;
    orv::i32 asI32;
    orv::i64 asI64;
    float asFloat;
    double asDouble;
    char* asString;
    Buffer asBuffer;  // A pointer and its length take 16 bytes here; every other form fits 8.
  };

  // Each setter writes the tag and the value and nothing else.
  ORV_MEMBER void setU8(orv::u8 value) { type = 0, asU8 = value; }
  ORV_MEMBER void setU16(orv::u16 value) { type = 1, asU16 = value; }
  ORV_MEMBER void setU32(orv::u32 value) { type = 2, asU32 = value; }
  ORV_MEMBER void setI8(orv::i8 value) { type = 3, asI8 = value; }
  ORV_MEMBER void setI16(orv::i16 value) { type = 4, asI16 = value; }
  ORV_MEMBER void setI32(orv::i32 value) { type = 5, asI32 = value; }
  ORV_MEMBER void setI64(orv::i64 value) { type = 6, asI64 = value; }
  ORV_MEMBER void setFloat(float value) { type = 7, asFloat = value; }
  ORV_MEMBER void setDouble(double value) { type = 8, asDouble = value; }
  ORV_MEMBER void setString(char* value) { type = 9, asString = value; }
  ORV_MEMBER void setBuffer(unsigned char* data, orv::u32 length) { type = 10, asBuffer = {data, length}; }

  OrvVariant() = default;
  OrvVariant(const OrvVariant&) = default;
  ORV_MEMBER OrvVariant& operator=(const OrvVariant& other) {
    type = other.type;
    asBuffer = other.asBuffer;  // The widest form: copies every other one with it.
    return *this;
  }
};
