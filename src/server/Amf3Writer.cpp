#include "server/Amf3Writer.h"

#include <cmath>

#include "server/AmfMarkers.h"

namespace orv::amf {

namespace {

constexpr u32 kNoLongerWritten = 0x40000000;
constexpr u32 kPlainObject = 11;  // Inline, inline class, dynamic, no sealed member.

// The header of an inline form of this length or count.
u32 inlineHeader(u32 length) {
  return length << 1 | amf3::kInline;
}

u32 referenceTo(i64 index) {
  return static_cast<u32>(index) << 1;
}

u8 objectMarker(u8 subtype) {
  if (amf3::isVector(subtype) || subtype == amf3::kDictionary) return subtype;
  return amf3::kObject;
}

bool fitsInteger(double value) {
  return value >= amf3::kLeastInteger && value <= amf3::kGreatestInteger && value == std::trunc(value);
}

// Elements that a record really has, whatever it says of itself.
u32 elementCount(u8 marker, const KTDataArray& record) {
  const u32 before = amf3::recordHeaderSize(marker);
  return record.size() > before ? record.size() - before : 0;
}

}  // namespace

void Amf3Writer::write(const KTData& value) {
  switch (value.type()) {
    case KTData::Number:
      return writeNumber(value);
    case KTData::Boolean:
      return out_.writeU8(value.toBool() ? amf3::kTrue : amf3::kFalse);
    case KTData::String:
      out_.writeU8(amf3::kString);
      return writeString(value.text());
    case KTData::Object:
    case KTData::TypedObject:
    case KTData::Amf3:
      return writeContainer(objectMarker(value.subtype()), value);
    case KTData::Null:
      return out_.writeU8(amf3::kNull);
    case KTData::EcmaArray:
    case KTData::StrictArray:
      return writeContainer(amf3::kArray, value);
    case KTData::Date:
      return writeDate(value);
    case KTData::Xml:
      return writeXml(value);
    case KTData::Memory:
      return writeBytes(value);
    default:
      return out_.writeU8(amf3::kUndefined);
  }
}

void Amf3Writer::writeU29(u32 value) {
  const auto writeMore = [this](u32 bits) { out_.writeU8(static_cast<u8>(bits | amf3::kMoreFollows)); };
  if (value >= kNoLongerWritten) return out_.writeU8(0);
  if (value < 0x80) return out_.writeU8(static_cast<u8>(value));
  if (value < 0x4000) {
    writeMore(value >> 7);
    return out_.writeU8(value & 0x7F);
  }
  if (value < 0x200000) {
    writeMore(value >> 14);
    writeMore(value >> 7);
    return out_.writeU8(value & 0x7F);
  }
  writeMore(value >> 22);
  writeMore(value >> 15);
  writeMore(value >> 8);
  out_.writeU8(static_cast<u8>(value));
}

void Amf3Writer::writeString(std::string_view text) {
  if (text.empty()) return writeU29(amf3::kInline);
  const i64 known = strings_.find(text, out_.bytes());
  if (known >= 0) return writeU29(referenceTo(known));
  const u32 length = static_cast<u32>(text.size());
  writeU29(inlineHeader(length));
  out_.writeBytes(text.data(), length);
  strings_.add({static_cast<u32>(out_.position()) - length, length});
}

// -0.0 counts as the integer 0, unless it came as a double.
void Amf3Writer::writeNumber(const KTData& value) {
  if (value.subtype() != amf3::kDouble && fitsInteger(value.toDouble())) {
    out_.writeU8(amf3::kInteger);
    return writeU29(value.toUInt() & amf3::kIntegerMask);
  }
  out_.writeU8(amf3::kDouble);
  out_.writeDouble(value.toDouble());
}

// One that didn't come from AMF3 has no XML form there.
void Amf3Writer::writeXml(const KTData& value) {
  const std::string_view text = value.text();
  if (value.subtype() != amf3::kXmlDocument && value.subtype() != amf3::kXml) {
    out_.writeU8(amf3::kString);
    return writeString(text);
  }
  writing_.objects.add(nullptr);
  out_.writeU8(value.subtype());
  writeU29(inlineHeader(static_cast<u32>(text.size())));
  out_.writeBytes(text.data(), static_cast<u32>(text.size()));
}

void Amf3Writer::writeDate(const KTData& value) {
  writing_.objects.add(nullptr);
  out_.writeU8(amf3::kDate);
  writeU29(amf3::kInline);
  out_.writeDouble(value.dateMilliseconds());
}

// The whole block, whatever range of it the value names.
void Amf3Writer::writeBytes(const KTData& value) {
  const KTBuffer view = value.memoryRange();
  if (view.size > amf3::kGreatestLength) return writing_.refuse(amf3::kUndefined);
  writing_.objects.add(nullptr);
  out_.writeU8(amf3::kByteArray);
  writeU29(inlineHeader(view.size));
  out_.writeBytes(view.data, view.size);
}

// Vectors and dictionaries too enter the reference table before their content.
void Amf3Writer::writeContainer(u8 marker, const KTData& value) {
  KTDataArray* const array = value.asArray();
  const i64 known = writing_.objects.find(array);
  if (!array || (known < 0 && !writing_.mayNest())) return writing_.refuse(amf3::kUndefined);
  out_.writeU8(marker);
  if (known >= 0) return writeU29(referenceTo(known));
  writing_.objects.add(array);
  const Writing::Level level(writing_);
  writeContent(marker, *array);
}

void Amf3Writer::writeContent(u8 marker, const KTDataArray& array) {
  switch (marker) {
    case amf3::kArray:
      writeU29(inlineHeader(0));  // No dense part: every entry goes out by name.
      return writePairs(array, 0);
    case amf3::kObject:
      return writeObject(array);
    case amf3::kDictionary:
      return writeDictionary(array);
    default:
      return writeVector(marker, array);
  }
}

// An entry with an empty key ends what a reader takes for the array.
void Amf3Writer::writePairs(const KTDataArray& array, u32 first) {
  IndexText indexText;
  for (u32 i = first; i < array.size(); ++i) {
    writeString(array.keyText(i, indexText));
    write(array.valueAt(i));
  }
  writeString({});
}

void Amf3Writer::writeObject(const KTDataArray& array) {
  const ClassName name = classNameOf(array);
  writeU29(kPlainObject);
  writeString(name.text == kPlainClass ? std::string_view() : name.text);
  writePairs(array, name.firstMember());
}

void Amf3Writer::writeVector(u8 marker, const KTDataArray& record) {
  writeU29(inlineHeader(elementCount(marker, record)));
  out_.writeU8(record.valueAt(amf3::kFlagEntry).toBool());
  if (marker == amf3::kVectorObject) writeString(record.valueAt(amf3::kVectorClassEntry).text());
  for (u32 i = amf3::recordHeaderSize(marker); i < record.size(); ++i) {
    writeVectorElement(marker, record.valueAt(i));
  }
}

void Amf3Writer::writeVectorElement(u8 marker, const KTData& value) {
  if (marker == amf3::kVectorObject) return write(value);
  if (marker == amf3::kVectorDouble) return out_.writeDouble(value.toDouble());
  out_.writeU32(value.toUInt());
}

void Amf3Writer::writeDictionary(const KTDataArray& record) {
  const u32 pairs = elementCount(amf3::kDictionary, record) / 2;
  const u32 first = amf3::recordHeaderSize(amf3::kDictionary);
  writeU29(inlineHeader(pairs));
  out_.writeU8(record.valueAt(amf3::kFlagEntry).toBool());
  for (u32 i = first; i < first + 2 * pairs; ++i) write(record.valueAt(i));
}

}  // namespace orv::amf
