#include "server/KTData.h"

#include <cstdlib>
#include <memory>

#include "platform/Numbers.h"
#include "server/KTDataArray.h"
#include "util/KTString.h"
#include "util/KTWideString.h"

namespace {

constexpr i32 kNoOrder = 2;

template <class T>
i32 order(const T& a, const T& b) {
  if (a < b) return -1;
  return a == b ? 0 : 1;
}

char* newText(std::string_view text) {
  return KTStringPool::instance().create(text.data(), static_cast<i64>(text.size()));
}

}  // namespace

KTData::KTData(const KTData& other) : payload_(other.payload_) {
  if (isString(other.type_)) {
    payload_.text = newText(other.text());
  } else if (isArray(other.type_)) {
    if (payload_.array) payload_.array->addRef();
  } else if (isMemory(other.type_)) {
    if (payload_.memory.block) payload_.memory.block->addRef();
  }
  type_ = other.type_;  // Last: with no type there is nothing to drop if a text could not be had.
  subtype_ = other.subtype_;
}

void KTData::drop() {
  const u8 type = std::exchange(type_, Undefined);  // First: a destructor below must not meet it again.
  if (isString(type)) {
    KTStringPool::instance().release(payload_.text);
  } else if (isArray(type)) {
    if (payload_.array) payload_.array->release();
  } else if (payload_.memory.block) {
    payload_.memory.block->release();
  }
}

void KTData::clear() {
  become(Undefined);
}

void KTData::setNull() {
  become(Null);
}

void KTData::setInt64(i64 value) {
  become(Int64);
  payload_.integer = value;
}

void KTData::setString(const char* text) {
  setText(text ? std::string_view(text) : std::string_view());
}

void KTData::setString(const char16_t* text) {
  setText(toNarrow(KTWideString(text)).view());
}

// The text may be this value's own, so the new block is made before the old one goes.
void KTData::setText(std::string_view text) {
  char* const block = newText(text);
  become(String);
  payload_.text = block;
}

void KTData::takeString(char* text) {
  const std::unique_ptr<char[]> taken(text);
  setString(text);
}

// As with texts, the array may hang on this very value.
void KTData::setArray(KTDataArray* array, u8 type) {
  if (array) array->addRef();
  become(type);
  payload_.array = array;
}

void KTData::setDate(double milliseconds, i32 timezone) {
  become(Date);
  payload_.date = {milliseconds, timezone};
}

void KTData::setMemory(const KTBuffer& view) {
  KTMemory* const block = view.memory.get();
  const MemoryRange range{block, block ? view.begin : 0, block ? view.end : 0};
  if (block) block->addRef();
  become(Memory);
  payload_.memory = range;
}

void KTData::setType(u8 type) {
  const bool sameForm =
      type == type_ || (isString(type) && isString(type_)) || (isArray(type) && isArray(type_));
  if (!sameForm) {
    const u8 subtype = subtype_;
    become(Undefined);
    subtype_ = subtype;
    payload_ = {};
    if (isString(type)) payload_.text = KTStringPool::empty<char>();
  }
  type_ = type;
}

i32 KTData::toInt() const {
  switch (type_) {
    case Number:
      return static_cast<i32>(orv::platform::truncateToInt64(payload_.number));
    case Boolean:
      return payload_.flag != 0;
    case String:
      return orv::platform::parseInt32(payload_.text);
    default:
      return 0;
  }
}

i64 KTData::toInt64() const {
  switch (type_) {
    case Number:
    case String:
      return orv::platform::truncateToInt64(toDouble());
    case Boolean:
      return payload_.flag != 0;
    case Int64:
      return payload_.integer;
    default:
      return 0;
  }
}

double KTData::otherToDouble() const {
  switch (type_) {
    case Boolean:
      return payload_.flag != 0 ? 1.0 : 0.0;
    case String:
      return std::atof(payload_.text);
    case Date:
      return payload_.date.milliseconds / 1000.0;
    default:
      return 0.0;
  }
}

std::string_view KTData::text() const {
  if (!isString(type_)) return "";
  return {payload_.text, static_cast<std::size_t>(KTStringPool::length(payload_.text))};
}

i32 KTData::stringLength() const {
  return type_ == String ? KTStringPool::length(payload_.text) : -1;
}

KTBuffer KTData::memoryRange() const {
  KTBuffer view;
  if (isMemory(type_) && payload_.memory.block) {
    view.assign(payload_.memory.block, payload_.memory.begin, payload_.memory.end);
  }
  return view;
}

void KTData::toText(KTData& text) const {
  KTData result;
  if (isString(type_)) {
    result.setText(this->text());
  } else if (isArray(type_)) {
    result.setText(KTString::fromNumber(static_cast<const void*>(payload_.array)).view());
  } else if (type_ == Number) {
    result.setText(KTString::fromNumber(payload_.number).view());
  } else if (type_ == Boolean) {
    result.setString(toBool() ? "true" : "false");
  } else {
    result.setString("");
  }
  text.swap(result);
}

const char* KTData::typeName() const {
  switch (type_) {
    case Number:
      return "Number";
    case Boolean:
      return "Boolean";
    case String:
      return "String";
    case Object:
      return "Object";
    case Null:
      return "Null";
    case Undefined:
      return "Undefined";
    case EcmaArray:
      return "EcmaArray";
    case StrictArray:
      return "StrictArray";
    case Date:
      return "Date";
    case Xml:
      return "Xml";
    case TypedObject:
      return "TypedObject";
    case Amf3:
      return "Amf3";
    case Memory:
      return "Memory";
    case Int64:
      return "Int64";
    default:
      return "Unknown";
  }
}

i32 KTData::compare(const KTData& a, const KTData& b) {
  if (a.type_ != b.type_) return kNoOrder;
  if (isString(a.type_)) return order(a.text(), b.text());
  if (isArray(a.type_)) return order(a.payload_.array, b.payload_.array);
  switch (a.type_) {
    case Number:
      return order(a.payload_.number, b.payload_.number);
    case Boolean:
      return order(a.payload_.flag, b.payload_.flag);
    case Null:
    case Undefined:
      return 0;
    case Date:
      if (a.payload_.date.timezone != b.payload_.date.timezone) return kNoOrder;
      return order(a.payload_.date.milliseconds, b.payload_.date.milliseconds);
    default:
      return kNoOrder;
  }
}
