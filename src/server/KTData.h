// One dynamically typed AMF value.
//
// A plain value: it copies, moves and swaps. Copies share, by count, the array or block that they refer to; a
// text is copied. For one thread at a time. Operations fail only for want of memory: asked for a type that it
// isn't, a value returns a fixed answer.

#pragma once

#include <string_view>
#include <utility>

#include "util/KTBuffer.h"

class KTDataArray;

class KTData {
 public:
  // The AMF0 markers, and two codes of this system above them.
  enum Type : u8 {
    Number = 0,
    Boolean = 1,
    String = 2,
    Object = 3,
    MovieClip = 4,  // On the wire only, as are the others marked so: no value has that type.
    Null = 5,
    Undefined = 6,
    Reference = 7,  // Wire only.
    EcmaArray = 8,
    ObjectEnd = 9,  // Wire only.
    StrictArray = 10,
    Date = 11,
    LongString = 12,   // Wire only.
    Unsupported = 13,  // Wire only.
    Xml = 15,
    TypedObject = 16,
    Amf3 = 17,  // An AMF3 object, vector or dictionary.
    Memory = 32,
    Int64 = 34,
  };
  static constexpr u8 kNoSubtype = 6;

  // Undefined.
  constexpr KTData() = default;
  KTData(const KTData& other);
  KTData(KTData&& other) noexcept : type_(other.type_), subtype_(other.subtype_), payload_(other.payload_) {
    other.type_ = Undefined;
    other.subtype_ = kNoSubtype;
  }
  ~KTData() {
    if (ownsContent()) drop();
  }
  // By value: what a value holds survives its assignment to itself or to a part of itself.
  KTData& operator=(KTData other) noexcept {
    swap(other);
    return *this;
  }
  static KTData ofNumber(double value) {
    KTData number;
    number.setNumber(value);
    return number;
  }
  static KTData ofBool(bool value) {
    KTData flag;
    flag.setBool(value);
    return flag;
  }
  static KTData ofText(std::string_view value) {
    KTData text;
    text.setText(value);
    return text;
  }
  void swap(KTData& other) noexcept {
    std::swap(type_, other.type_);
    std::swap(subtype_, other.subtype_);
    std::swap(payload_, other.payload_);
  }

  // Each setter drops the old content first and leaves `subtype` at 6.
  void clear();
  void setNull();
  void setNumber(double value) {
    become(Number);
    payload_.number = value;
  }
  void setBool(bool value) {
    become(Boolean);
    payload_.flag = value;
  }
  void setInt64(i64 value);
  void setString(const char* text);      // A null text is empty.
  void setString(const char16_t* text);  // Converted to UTF-8; empty if that fails.
  void setText(std::string_view text);   // A String that may hold NULs.
  // Copies a text that came from array new, and deletes it.
  void takeString(char* text);
  // `type` is a container type. `array` may be null.
  void setArray(KTDataArray* array, u8 type);
  void setDate(double milliseconds, i32 timezone);
  void setDateSeconds(double seconds, i32 timezone) { setDate(seconds * 1000.0, timezone); }
  void setMemory(const KTBuffer& view);

  u8 type() const { return type_; }
  // Keeps the content between two types of one form (the containers; String and Xml). Any other change drops
  // it and leaves the zero of the new form. `subtype` always stays.
  void setType(u8 type);
  // Returns the AMF3 marker that the value was read from or is to be written as; 6 if none applies.
  u8 subtype() const { return subtype_; }
  void setSubtype(u8 subtype) { subtype_ = subtype; }

  bool toBool() const { return type_ == Boolean && payload_.flag != 0; }
  i32 toInt() const;
  u32 toUInt() const { return static_cast<u32>(toInt()); }
  i64 toInt64() const;
  double toDouble() const {
    return type_ == Number ? payload_.number : otherToDouble();
  }  // Of a Date, seconds.
  float toFloat() const { return static_cast<float>(toDouble()); }
  // Returns the text of a String or an Xml; empty, never null, for other types. Valid until the value
  // changes.
  const char* asString() const { return text().data(); }
  std::string_view text() const;  // The same, with its length.
  i32 stringLength() const;       // -1 for all but a String.
  // Borrowed; null unless this is a container.
  KTDataArray* asArray() const { return isArray(type_) ? payload_.array : nullptr; }
  double dateMilliseconds() const { return type_ == Date ? payload_.date.milliseconds : 0.0; }
  i32 timezone() const { return type_ == Date ? payload_.date.timezone : 0; }
  KTBuffer memoryRange() const;

  // Sets `text` to a String form of this value, for people; an array shows as its address.
  void toText(KTData& text) const;
  // Returns "Number", "EcmaArray" and so on, as the types are called here; "Unknown" for a code without a
  // type.
  const char* typeName() const;

  static bool isString(u8 type) { return isOneOf(kStrings, type); }
  static bool isArray(u8 type) { return isOneOf(kArrays, type); }
  static bool isMemory(u8 type) { return type == Memory; }

  // Returns -1, 0 or 1; 2 if the two have no order. Arrays are equal only if they are the same array.
  static i32 compare(const KTData& a, const KTData& b);
  friend bool operator==(const KTData& a, const KTData& b) { return compare(a, b) == 0; }

 private:
  struct DateValue {
    double milliseconds;
    i32 timezone;
  };
  struct MemoryRange {
    KTMemory* block;  // One count; null for none.
    u32 begin;
    u32 end;
  };
  // Chosen by the type. Of trivial members, so that a value moves as plain bytes.
  union Payload {
    double number;
    u8 flag;
    i64 integer;
    char* text;          // A block of the string pool, owned.
    KTDataArray* array;  // One count.
    DateValue date;
    MemoryRange memory{};
  };

  // Sets of types, a bit each.
  static constexpr u64 kOne = 1;
  static constexpr u64 kStrings = kOne << String | kOne << Xml;
  static constexpr u64 kArrays =
      kOne << Object | kOne << EcmaArray | kOne << StrictArray | kOne << TypedObject | kOne << Amf3;
  static bool isOneOf(u64 types, u8 type) { return type < 64 && (types >> type & 1) != 0; }

  bool ownsContent() const { return isOneOf(kStrings | kArrays | kOne << Memory, type_); }
  void drop();
  double otherToDouble() const;
  void become(u8 type) {
    if (ownsContent()) drop();
    type_ = type;
    subtype_ = kNoSubtype;
  }

  u8 type_ = Undefined;
  u8 subtype_ = kNoSubtype;
  Payload payload_;
};
