#include "server/Amf0Writer.h"

#include <algorithm>
#include <bit>

#include "server/AmfMarkers.h"
#include "util/KTThrowable.h"

namespace orv::amf {

namespace {

constexpr u32 kKeyHead = sizeof(u16);
constexpr i64 kGreatestReference = 0xFFFF;

// Writes a member whose form has a known size, as most metadata consists of, in one piece. Returns false,
// with nothing written, for all other forms.
bool putFlatMember(KTParser::Pen& pen, std::string_view key, const KTData& value) {
  if (key.size() > KTParser::kMaxShortText) return false;
  const u32 headSize = kKeyHead + static_cast<u32>(key.size()) + sizeof(u8);
  switch (value.type()) {
    case KTData::Number:
      pen.need(headSize + sizeof(double));
      pen.putShortText(key);
      pen.put(u8{KTData::Number});
      pen.put(std::bit_cast<u64>(value.toDouble()));
      return true;
    case KTData::Boolean:
      pen.need(headSize + sizeof(u8));
      pen.putShortText(key);
      pen.put(u8{KTData::Boolean});
      pen.put(static_cast<u8>(value.toBool()));
      return true;
    case KTData::String: {
      const std::string_view text = value.text();
      if (text.size() > KTParser::kMaxShortText) return false;
      pen.need(headSize + kKeyHead + static_cast<u32>(text.size()));
      pen.putShortText(key);
      pen.put(u8{KTData::String});
      pen.putShortText(text);
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

// Returns the marker. A value for which there is no memory leaves no byte behind: ObjectEnd.
u8 Amf0Writer::writeMember(const KTData& value, const std::string_view* key) {
  KTParser& out = writing_.out;
  const i32 position = out.position();
  const u32 objects = writing_.objects.size();
  const u32 strings = amf3_.stringCount();
  try {
    if (key) out.writeString(*key, KTParser::kShortText);
    return writeForm(value);
  } catch (const KTOutOfMemory&) {
    out.rewind(position);
    out.giveUp();
    writing_.objects.cutTo(objects);
    amf3_.forgetStringsFrom(strings);
    return KTData::ObjectEnd;
  }
}

// Returns the marker that was written.
u8 Amf0Writer::writeForm(const KTData& value) {
  KTParser& out = writing_.out;
  const bool asAmf3 = out.encoding() == kAmf3Encoding;
  switch (value.type()) {
    case KTData::Number:
      out.writeU8(KTData::Number);
      out.writeDouble(value.toDouble());
      return KTData::Number;
    case KTData::Boolean:
      out.writeU8(KTData::Boolean);
      out.writeU8(value.toBool());
      return KTData::Boolean;
    case KTData::String:
      return writeText(value);
    case KTData::Object:
    case KTData::TypedObject:
      return writeContainer(value);
    case KTData::Null:
    case KTData::Undefined:
      out.writeU8(value.type());
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
      out.writeU8(KTData::Int64);
      out.writeInt64(value.toInt64());
      return KTData::Int64;
    default:
      out.writeU8(KTData::Unsupported);
      return KTData::Unsupported;
  }
}

u8 Amf0Writer::writeText(const KTData& value) {
  const std::string_view text = value.text();
  u8 marker = value.type();
  if (marker == KTData::String && text.size() > KTParser::kMaxShortText) marker = KTData::LongString;
  writing_.out.writeU8(marker);
  writing_.out.writeString(text, marker == KTData::String ? KTParser::kShortText : KTParser::kLongText);
  return marker;
}

u8 Amf0Writer::writeDate(const KTData& value) {
  writing_.out.writeU8(KTData::Date);
  writing_.out.writeDouble(value.dateMilliseconds());
  writing_.out.writeU16(static_cast<u16>(value.timezone()));
  return KTData::Date;
}

u8 Amf0Writer::writeMemory(const KTData& value) {
  const KTBuffer view = value.memoryRange();
  const u32 end = std::min(view.end, view.size);
  const u32 begin = std::min(view.begin, end);
  writing_.out.writeU8(KTData::Memory);
  writing_.out.writeU32(end - begin);
  writing_.out.writeBytes(view.data + begin, end - begin);
  return KTData::Memory;
}

u8 Amf0Writer::writeAsAmf3(const KTData& value) {
  writing_.out.writeU8(KTData::Amf3);
  amf3_.write(value);
  return KTData::Amf3;
}

u8 Amf0Writer::writeContainer(const KTData& value) {
  KTDataArray* const array = value.asArray();
  const i64 known = writing_.objects.find(array);
  if (!array || known > kGreatestReference || (known < 0 && !writing_.mayNest())) {
    writing_.refuse(KTData::Undefined);
    return KTData::Undefined;
  }
  if (known >= 0) {
    writing_.out.writeU8(KTData::Reference);
    writing_.out.writeU16(static_cast<u16>(known));
    return KTData::Reference;
  }
  writing_.objects.add(array);
  writing_.out.writeU8(value.type());
  const Writing::Level level(writing_);
  writeContent(value.type(), *array);
  return value.type();
}

void Amf0Writer::writeContent(u8 marker, const KTDataArray& array) {
  switch (marker) {
    case KTData::StrictArray:
      return writeStrictArray(array);
    case KTData::TypedObject:
      return writeTypedObject(array);
    case KTData::EcmaArray:
      writing_.out.writeU32(0);  // The count, which no reader may rely on.
      return writeMembers(array, 0);
    default:
      return writeMembers(array, 0);
  }
}

// The first member for which there is no memory ends the container.
void Amf0Writer::writeMembers(const KTDataArray& array, u32 first) {
  try {
    writeEntries(array, first);
  } catch (const KTOutOfMemory&) {
    writing_.out.giveUp();
  }
  writing_.out.writeU16(0);
  writing_.out.writeU8(KTData::ObjectEnd);
}

void Amf0Writer::writeEntries(const KTDataArray& array, u32 first) {
  const bool indices = array.hasIndexKeys();
  IndexText indexText(first);
  KTParser::Pen pen(writing_.out);
  for (u32 i = first; i < array.size(); ++i) {
    const std::string_view key = indices ? indexText.view() : array.keyText(i, indexText);
    const KTData& value = array.valueAt(i);
    if (!putFlatMember(pen, key, value)) {
      pen.lift();
      if (writeMember(value, &key) == KTData::ObjectEnd) return;
      pen.set();
    }
    if (indices) indexText.next();
  }
}

void Amf0Writer::writeTypedObject(const KTDataArray& array) {
  const ClassName name = classNameOf(array);
  writing_.out.writeString(name.text, KTParser::kShortText);
  writeMembers(array, name.firstMember());
}

// The count goes out first, so that an element for which there is no memory takes the array with it.
void Amf0Writer::writeStrictArray(const KTDataArray& array) {
  writing_.out.writeU32(array.size());
  for (u32 i = 0; i < array.size(); ++i) {
    if (writeMember(array.valueAt(i), nullptr) == KTData::ObjectEnd) throw KTOutOfMemory();
  }
}

}  // namespace orv::amf
