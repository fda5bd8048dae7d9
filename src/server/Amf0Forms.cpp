// The AMF0 forms of the serializer, reading and writing of each side by side.

#include <algorithm>

#include "server/AmfMarkers.h"
#include "server/KTCSerializer.h"
#include "util/KTThrowable.h"

using namespace orv;

namespace {

constexpr i32 kAmf3Encoding = 3;
constexpr u8 kTrue = 1;
constexpr u32 kMemberOverhead = 2 + 1 + 8;  // Of a Number, besides its key.
constexpr u32 kNumberSize = 9;              // With its marker; what long arrays are made of.
constexpr u32 kMemberSize = 16;             // The same with a key.

std::string_view upToNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

}  // namespace

// Gives the marker, or ObjectEnd when the reading failed. `key` is null where values have none.
u8 KTCSerializer::readMember(KTData& value, std::string_view* key) {
  try {
    if (key) *key = viewString(kShortText);
    const u8 marker = readU8();
    if (failed()) return KTData::ObjectEnd;
    readForm(marker, value);
    return failed() ? u8{KTData::ObjectEnd} : marker;
  } catch (const KTOutOfMemory&) {
    giveUp();  // Where the next value starts is unknown.
    return KTData::ObjectEnd;
  }
}

// The same for writing; a value for which there was no memory leaves no byte behind.
u8 KTCSerializer::writeMember(const KTData& value, const std::string_view* key) {
  const Mark start = mark();
  try {
    if (key && value.type() == KTData::Number && key->size() <= kMaxShortText) {
      return writeNumberMember(*key, value.toDouble());
    }
    if (key) writeString(*key, kShortText);
    return writeForm(value);
  } catch (const KTOutOfMemory&) {
    goBackTo(start);
    return KTData::ObjectEnd;
  }
}

// What most metadata consists of, in one piece.
u8 KTCSerializer::writeNumberMember(std::string_view key, double value) {
  const u32 length = static_cast<u32>(key.size());
  if (u8* bytes = room(length + kMemberOverhead)) {
    bytes = put(bytes, static_cast<u16>(length));
    bytes = putText(bytes, key);
    bytes = put(bytes, u8{KTData::Number});
    put(bytes, std::bit_cast<u64>(value));
  }
  return KTData::Number;
}

void KTCSerializer::readForm(u8 marker, KTData& value) {
  switch (marker) {
    case KTData::Number:
      return value.setNumber(readDouble());
    case KTData::Boolean:
      return value.setBool(readU8() == kTrue);
    case KTData::String:
    case KTData::MovieClip:
      return readText(value, upToNul(viewString(kShortText)));
    case KTData::Object:
      return readObject(value);
    case KTData::Null:
      return value.setNull();
    case KTData::Undefined:
    case KTData::ObjectEnd:
    case KTData::Unsupported:
      return value.clear();
    case KTData::Reference:
      return readReference(value);
    case KTData::EcmaArray:
      return readEcmaArray(value);
    case KTData::StrictArray:
      return readStrictArray(value);
    case KTData::Date:
      return readDate(value);
    case KTData::LongString:
      return readText(value, upToNul(viewString(kLongText)));
    case KTData::Xml:
      readText(value, upToNul(viewString(kLongText)));
      return value.setType(KTData::Xml);
    case KTData::TypedObject:
      return readTypedObject(value);
    case KTData::Amf3:
      return readAmf3(value);
    case KTData::Memory:
      return readMemory(value);
    case KTData::Int64:
      return value.setInt64(readInt64());
    default:
      throw KTBreakConnection();
  }
}

// Gives the marker that was written.
u8 KTCSerializer::writeForm(const KTData& value) {
  const bool asAmf3 = encoding() == kAmf3Encoding;
  switch (value.type()) {
    case KTData::Number:
      writeU8(KTData::Number);
      writeDouble(value.toDouble());
      return KTData::Number;
    case KTData::Boolean:
      writeU8(KTData::Boolean);
      writeU8(value.toBool());
      return KTData::Boolean;
    case KTData::String:
      return writeText(value);
    case KTData::Object:
    case KTData::TypedObject:
      return writeContainer(value);
    case KTData::Null:
    case KTData::Undefined:
      writeU8(value.type());
      return value.type();
    case KTData::EcmaArray:
    case KTData::StrictArray:
      return asAmf3 ? writeAsAmf3(value) : writeContainer(value);
    case KTData::Date:
      return asAmf3 ? writeAsAmf3(value) : writeDate(value);
    case KTData::Xml:
      return asAmf3 ? writeAsAmf3(value) : writeText(value);
    case KTData::Memory:
      return asAmf3 ? writeAsAmf3(value) : writeMemory(value);
    case KTData::Amf3:
      return writeAsAmf3(value);
    case KTData::Int64:
      writeU8(KTData::Int64);
      writeInt64(value.toInt64());
      return KTData::Int64;
    default:
      writeU8(KTData::Unsupported);
      return KTData::Unsupported;
  }
}

u8 KTCSerializer::writeText(const KTData& value) {
  const std::string_view text = value.text();
  u8 marker = value.type();
  if (marker == KTData::String && text.size() > kMaxShortText) marker = KTData::LongString;
  writeU8(marker);
  writeString(text, marker == KTData::String ? kShortText : kLongText);
  return marker;
}

u8 KTCSerializer::writeAsAmf3(const KTData& value) {
  writeU8(KTData::Amf3);
  writeAmf3(value);
  return KTData::Amf3;
}

// Members up to the end marker, whatever key it has.
void KTCSerializer::readMembers(KTDataArray& array) {
  const Level level(*this, &array);
  u8 marker = 0;
  do {
    KTData value;
    std::string_view key;
    marker = readMember(value, &key);
    if (marker != KTData::ObjectEnd || KTData::isArray(value.type())) enter(array, key, std::move(value));
  } while (marker != KTData::ObjectEnd && !failed());
}

void KTCSerializer::writeMembers(const KTDataArray& array, u32 first) {
  const bool indices = array.hasIndexKeys();
  IndexText indexText(first);
  for (u32 i = first; i < array.size(); ++i) {
    const std::string_view key = indices ? indexText.view() : array.keyText(i, indexText);
    if (writeMember(array.valueAt(i), &key) == KTData::ObjectEnd) break;
    if (indices) indexText.next();
  }
  writeU16(0);
  writeU8(KTData::ObjectEnd);
}

void KTCSerializer::readObject(KTData& value) {
  KTDataArray* const array = newObject(KTData::Object);
  if (!array) return;
  value.setArray(array, KTData::Object);
  readMembers(*array);
}

void KTCSerializer::readTypedObject(KTData& value) {
  const std::string_view className = viewString(kShortText);
  KTDataArray* const array = failed() ? nullptr : newObject(KTData::TypedObject);
  if (!array) return;
  value.setArray(array, KTData::TypedObject);
  KTData name;
  readText(name, className);
  enter(*array, amf::kClassKey, std::move(name));
  readMembers(*array);
}

void KTCSerializer::writeTypedObject(const KTDataArray& array) {
  const amf::ClassName name = amf::classNameOf(array);
  writeString(name.text, kShortText);
  writeMembers(array, name.firstMember());
}

// The count says nothing about what follows; it only tells how much room to take.
void KTCSerializer::readEcmaArray(KTData& value) {
  const u32 count = readU32();
  KTDataArray* const array = failed() ? nullptr : newObject(KTData::EcmaArray);
  if (!array) return;
  value.setArray(array, KTData::EcmaArray);
  makeRoom(*array, count, kMemberSize);
  readMembers(*array);
}

void KTCSerializer::readStrictArray(KTData& value) {
  const u32 count = readU32();
  if (count > remaining()) return fail();
  KTDataArray* const array = failed() ? nullptr : newObject(KTDataArray::kNoType);
  if (!array) return;
  value.setArray(array, KTData::EcmaArray);
  makeRoom(*array, count, kNumberSize);
  const Level level(*this, array);
  for (u32 i = 0; i < count && !failed(); ++i) {
    KTData element;
    const u8 marker = readMember(element, nullptr);
    if (marker != KTData::ObjectEnd || KTData::isArray(element.type()))
      enterElement(*array, std::move(element));
    if (marker == KTData::ObjectEnd) return;
  }
}

// The count goes out first, so that an element for which there is no memory takes the array with it.
void KTCSerializer::writeStrictArray(const KTDataArray& array) {
  writeU32(array.size());
  for (u32 i = 0; i < array.size(); ++i) {
    if (writeMember(array.valueAt(i), nullptr) == KTData::ObjectEnd) throw KTOutOfMemory();
  }
}

// An index past the end leaves the value as it was, which is no failure.
void KTCSerializer::readReference(KTData& value) {
  const u16 index = readU16();
  if (!failed() && index < objects_.size()) value.setArray(objects_[index], KTData::EcmaArray);
}

u8 KTCSerializer::writeContainer(const KTData& value) {
  KTDataArray* const array = value.asArray();
  const i64 known = objects_.find(array);
  if (!array || known > 0xFFFF || (known < 0 && depth_ == amf::kMaxNesting)) return writeRefused();
  if (known >= 0) {
    writeU8(KTData::Reference);
    writeU16(static_cast<u16>(known));
    return KTData::Reference;
  }
  objects_.add(array);
  writeU8(value.type());
  const Level level(*this, array);
  writeContent(value.type(), *array);
  return value.type();
}

void KTCSerializer::writeContent(u8 marker, const KTDataArray& array) {
  switch (marker) {
    case KTData::StrictArray:
      return writeStrictArray(array);
    case KTData::TypedObject:
      return writeTypedObject(array);
    case KTData::EcmaArray:
      writeU32(0);
      return writeMembers(array, 0);
    default:
      return writeMembers(array, 0);
  }
}

// In the place of what can't be said.
u8 KTCSerializer::writeRefused() {
  giveUp();
  writeU8(KTData::Undefined);
  return KTData::Undefined;
}

void KTCSerializer::readDate(KTData& value) {
  const double milliseconds = readDouble();
  value.setDate(milliseconds, readU16());
}

u8 KTCSerializer::writeDate(const KTData& value) {
  writeU8(KTData::Date);
  writeDouble(value.dateMilliseconds());
  writeU16(static_cast<u16>(value.timezone()));
  return KTData::Date;
}

void KTCSerializer::readMemory(KTData& value) {
  readBlock(value, readU32());
}

u8 KTCSerializer::writeMemory(const KTData& value) {
  const KTBuffer view = value.memoryRange();
  const u32 end = std::min(view.end, view.size);
  const u32 begin = std::min(view.begin, end);
  writeU8(KTData::Memory);
  writeU32(end - begin);
  writeBytes(view.data + begin, end - begin);
  return KTData::Memory;
}
