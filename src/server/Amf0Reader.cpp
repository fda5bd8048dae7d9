#include "server/Amf0Reader.h"

#include "server/AmfMarkers.h"
#include "util/KTThrowable.h"

namespace orv::amf {

namespace {

constexpr u8 kTrue = 1;
constexpr u32 kElementSize = 1;  // The least.
constexpr u32 kMemberSize = 16;  // The usual one; fewer than an array's count may follow.

}  // namespace

void Amf0Reader::resetTables() {
  reading_.objects.cutTo(0);
  amf3_.resetClasses();
}

// Returns the marker; ObjectEnd on failure. `key` is null where values have none.
u8 Amf0Reader::readMember(KTData& value, std::string_view* key) {
  KTParser& in = reading_.in;
  try {
    if (key) *key = in.viewString(KTParser::kShortText);
    const u8 marker = in.readU8();
    if (in.failed()) return KTData::ObjectEnd;
    readForm(marker, value);
    return in.failed() ? u8{KTData::ObjectEnd} : marker;
  } catch (const KTOutOfMemory&) {
    in.giveUp();  // Where the next value starts is unknown.
    return KTData::ObjectEnd;
  }
}

void Amf0Reader::readForm(u8 marker, KTData& value) {
  KTParser& in = reading_.in;
  switch (marker) {
    case KTData::Number:
      return value.setNumber(in.readDouble());
    case KTData::Boolean:
      return value.setBool(in.readU8() == kTrue);
    case KTData::String:
    case KTData::MovieClip:
      return reading_.readText(value, upToNul(in.viewString(KTParser::kShortText)));
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
      return reading_.readText(value, upToNul(in.viewString(KTParser::kLongText)));
    case KTData::Xml:
      reading_.readText(value, upToNul(in.viewString(KTParser::kLongText)));
      return value.setType(KTData::Xml);
    case KTData::TypedObject:
      return readTypedObject(value);
    case KTData::Amf3:
      return amf3_.read(value);
    case KTData::Memory:
      return reading_.readBlock(value, in.readU32());
    case KTData::Int64:
      return value.setInt64(in.readInt64());
    default:
      throw KTBreakConnection();
  }
}

// Reads members up to the end marker, whatever key it has.
void Amf0Reader::readMembers(KTDataArray& array) {
  const Reading::Level level(reading_, &array);
  u8 marker = 0;
  do {
    KTData value;
    std::string_view key;
    marker = readMember(value, &key);
    const bool ended = marker == KTData::ObjectEnd && !KTData::isArray(value.type());
    if (!ended) reading_.enter(array, key, std::move(value));
  } while (marker != KTData::ObjectEnd && !reading_.in.failed());
}

void Amf0Reader::readObject(KTData& value) {
  KTDataArray* const array = reading_.newObject(KTData::Object);
  if (!array) return;
  value.setArray(array, KTData::Object);
  readMembers(*array);
}

void Amf0Reader::readTypedObject(KTData& value) {
  const std::string_view className = reading_.in.viewString(KTParser::kShortText);
  KTDataArray* const array = reading_.in.failed() ? nullptr : reading_.newObject(KTData::TypedObject);
  if (!array) return;
  value.setArray(array, KTData::TypedObject);
  KTData name;
  reading_.readText(name, className);
  reading_.enter(*array, kClassKey, std::move(name));
  readMembers(*array);
}

// The count says nothing about what follows; it only says how much room to take.
void Amf0Reader::readEcmaArray(KTData& value) {
  const u32 count = reading_.in.readU32();
  KTDataArray* const array = reading_.in.failed() ? nullptr : reading_.newObject(KTData::EcmaArray);
  if (!array) return;
  value.setArray(array, KTData::EcmaArray);
  reading_.makeRoom(*array, count, kMemberSize);
  readMembers(*array);
}

void Amf0Reader::readStrictArray(KTData& value) {
  KTParser& in = reading_.in;
  const u32 count = in.readU32();
  if (count > in.remaining()) return in.fail();
  KTDataArray* const array = in.failed() ? nullptr : reading_.newObject(KTDataArray::kNoType);
  if (!array) return;
  value.setArray(array, KTData::EcmaArray);
  reading_.makeRoom(*array, count, kElementSize);
  const Reading::Level level(reading_, array);
  for (u32 i = 0; i < count && !in.failed(); ++i) {
    KTData element;
    const u8 marker = readMember(element, nullptr);
    const bool ended = marker == KTData::ObjectEnd;
    if (!ended || KTData::isArray(element.type())) reading_.enterElement(*array, std::move(element));
    if (ended) return;
  }
}

// An index past the end leaves the value as it was, which is no failure.
void Amf0Reader::readReference(KTData& value) {
  const u16 index = reading_.in.readU16();
  const bool known = !reading_.in.failed() && index < reading_.objects.size();
  if (known) value.setArray(reading_.objects[index], KTData::EcmaArray);
}

void Amf0Reader::readDate(KTData& value) {
  const double milliseconds = reading_.in.readDouble();
  value.setDate(milliseconds, reading_.in.readU16());
}

}  // namespace orv::amf
