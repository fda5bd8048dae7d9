// The AMF3 numbers, texts and plain forms of the serializer, reading and writing of each side by side.

#include <cmath>
#include <new>

#include "server/AmfMarkers.h"
#include "server/KTCSerializer.h"
#include "util/KTThrowable.h"

using namespace orv;

namespace {

constexpr u8 kMoreFollows = 0x80;
constexpr u32 kInline = 1;
constexpr u32 kNoLongerWritten = 0x40000000;

// The header of an inline form of this length or count.
u32 inlineHeader(u32 length) {
  return length << 1 | kInline;
}

double signExtended(u32 value) {
  const u32 signBit = (amf3::kIntegerMask + 1) >> 1;
  return static_cast<i32>(value & amf3::kIntegerMask) - static_cast<i32>((value & signBit) << 1);
}

u8 objectMarker(u8 subtype) {
  if (amf3::isVector(subtype) || subtype == amf3::kDictionary) return subtype;
  return amf3::kObject;
}

bool fitsInteger(double value) {
  return value >= amf3::kLeastInteger && value <= amf3::kGreatestInteger && value == std::trunc(value);
}

}  // namespace

void KTCSerializer::readAmf3(KTData& value) {
  const u8 marker = readU8();
  if (!failed()) readAmf3Form(marker, value);
}

void KTCSerializer::readAmf3Form(u8 marker, KTData& value) {
  switch (marker) {
    case amf3::kXmlDocument:
    case amf3::kXml:
      return readAmf3Xml(marker, value);
    case amf3::kDate:
      return readAmf3Date(value);
    case amf3::kArray:
      return readAmf3Array(value);
    case amf3::kObject:
      return readAmf3Object(value);
    case amf3::kByteArray:
      return readAmf3Bytes(value);
    case amf3::kVectorInt:
    case amf3::kVectorUint:
    case amf3::kVectorDouble:
    case amf3::kVectorObject:
      return readVector(marker, value);
    case amf3::kDictionary:
      return readDictionary(value);
    default:
      return readAmf3Plain(marker, value);
  }
}

void KTCSerializer::readAmf3Plain(u8 marker, KTData& value) {
  switch (marker) {
    case amf3::kUndefined:
      break;
    case amf3::kNull:
      value.setNull();
      break;
    case amf3::kFalse:
    case amf3::kTrue:
      value.setBool(marker == amf3::kTrue);
      break;
    case amf3::kInteger:
      value.setNumber(signExtended(readU29()));
      break;
    case amf3::kDouble:
      value.setNumber(readDouble());
      break;
    case amf3::kString:
      readText(value, readAmf3String());
      break;
    default:
      return;
  }
  value.setSubtype(marker);
}

void KTCSerializer::writeAmf3(const KTData& value) {
  switch (value.type()) {
    case KTData::Number:
      return writeAmf3Number(value);
    case KTData::Boolean:
      return writeU8(value.toBool() ? amf3::kTrue : amf3::kFalse);
    case KTData::String:
      writeU8(amf3::kString);
      return writeAmf3String(value.text());
    case KTData::Object:
    case KTData::TypedObject:
    case KTData::Amf3:
      return writeAmf3Container(objectMarker(value.subtype()), value);
    case KTData::Null:
      return writeU8(amf3::kNull);
    case KTData::EcmaArray:
    case KTData::StrictArray:
      return writeAmf3Container(amf3::kArray, value);
    case KTData::Date:
      return writeAmf3Date(value);
    case KTData::Xml:
      return writeAmf3Xml(value);
    case KTData::Memory:
      return writeAmf3Bytes(value);
    default:
      return writeU8(amf3::kUndefined);
  }
}

// In the place of what can't be said.
void KTCSerializer::writeAmf3Refused() {
  giveUp();
  writeU8(amf3::kUndefined);
}

// Seven bits in each of up to three bytes, and all eight of a fourth.
u32 KTCSerializer::readU29() {
  u32 value = 0;
  for (int i = 0; i < 3; ++i) {
    const u8 byte = readU8();
    value = value << 7 | (byte & 0x7F);
    if (!(byte & kMoreFollows)) return failed() ? 0 : value;
  }
  value = value << 8 | readU8();
  return failed() ? 0 : value;
}

void KTCSerializer::writeU29(u32 value) {
  const auto writeMore = [this](u32 bits) { writeU8(static_cast<u8>(bits | kMoreFollows)); };
  if (value >= kNoLongerWritten) return writeU8(0);
  if (value < 0x80) return writeU8(static_cast<u8>(value));
  if (value < 0x4000) {
    writeMore(value >> 7);
    return writeU8(value & 0x7F);
  }
  if (value < 0x200000) {
    writeMore(value >> 14);
    writeMore(value >> 7);
    return writeU8(value & 0x7F);
  }
  writeMore(value >> 22);
  writeMore(value >> 15);
  writeMore(value >> 8);
  writeU8(static_cast<u8>(value));
}

// Where it lies in the buffer; empty after a failure.
std::string_view KTCSerializer::readAmf3String() {
  const u32 header = readU29();
  if (header == kInline || failed()) return {};
  const u32 number = header >> 1;
  if (!(header & kInline)) {
    if (number < strings_.size()) return textOf(strings_[number]);
    fail();
    return {};
  }
  const std::string_view text = viewBytes(number);
  if (failed() || !charge(2 * sizeof(Span))) return {};
  strings_.add({static_cast<u32>(position()) - number, number});
  return text;
}

void KTCSerializer::writeAmf3String(std::string_view text) {
  if (text.empty()) return writeU29(kInline);
  const i64 known = strings_.find(text, bytes());
  if (known >= 0) return writeU29(static_cast<u32>(known) << 1);
  const u32 length = static_cast<u32>(text.size());
  writeU29(inlineHeader(length));
  writeBytes(text.data(), length);
  strings_.add({static_cast<u32>(position()) - length, length});
}

// A place in the table that holds no array makes the header that of an inline form.
KTCSerializer::FormHeader KTCSerializer::readHeader() {
  const u32 bits = readU29();
  if (failed()) return {false, 0, nullptr};
  if (bits & kInline) return {true, bits, nullptr};
  if (bits >> 1 < objects_.size()) return {true, bits, objects_[bits >> 1]};
  fail();
  return {false, 0, nullptr};
}

// -0.0 counts as the integer 0, unless it came as a double.
void KTCSerializer::writeAmf3Number(const KTData& value) {
  if (value.subtype() != amf3::kDouble && fitsInteger(value.toDouble())) {
    writeU8(amf3::kInteger);
    return writeU29(value.toUInt() & amf3::kIntegerMask);
  }
  writeU8(amf3::kDouble);
  writeDouble(value.toDouble());
}

// Texts, dates and byte arrays can be referred to: each gets a record in the table that holds its value.
void KTCSerializer::addRecord(i32 type, const char* key, const KTData& value) {
  if (!charge(2 * sizeof(KTDataArrayPtr))) return;
  objects_.makePlace();
  KTDataArray* const record = newArray(type, 1);
  if (!record) return;
  objects_.add(record);
  enter(*record, key, KTData(value));
}

// An array of another kind leaves the value as it was.
void KTCSerializer::copyFromRecord(const KTDataArray& record, i32 type, u8 valueType, KTData& value) {
  const KTData& held = record.valueAt(0);
  if (record.type() != type || held.type() != valueType) return;
  if (charge(held.text().size() + amf::kBlockOverhead)) value = held;
}

// A text that there is no memory for breaks off the value, as a buffer does that can't grow.
void KTCSerializer::readAmf3Xml(u8 marker, KTData& value) try {
  const FormHeader header = readHeader();
  if (header.known) return copyFromRecord(*header.known, marker, KTData::Xml, value);
  const std::string_view text = header.usable ? viewBytes(header.length()) : std::string_view();
  const bool granted = !failed() && charge(2 * (text.size() + amf::kBlockOverhead));
  value.setText(granted ? text : std::string_view());
  value.setType(KTData::Xml);
  value.setSubtype(marker);
  if (granted) addRecord(marker, "xml", value);
} catch (const std::bad_alloc&) {
  throw KTOutOfMemory();
}

// One that didn't come from AMF3 has no XML form there.
void KTCSerializer::writeAmf3Xml(const KTData& value) {
  const std::string_view text = value.text();
  if (value.subtype() != amf3::kXmlDocument && value.subtype() != amf3::kXml) {
    writeU8(amf3::kString);
    return writeAmf3String(text);
  }
  objects_.add(nullptr);
  writeU8(value.subtype());
  writeU29(inlineHeader(static_cast<u32>(text.size())));
  writeBytes(text.data(), static_cast<u32>(text.size()));
}

void KTCSerializer::readAmf3Date(KTData& value) {
  value.setDate(0, 0);
  value.setSubtype(amf3::kDate);
  const FormHeader header = readHeader();
  if (header.known) return copyFromRecord(*header.known, amf3::kDate, KTData::Date, value);
  const double milliseconds = readDouble();
  if (failed()) return;
  value.setDate(milliseconds, 0);
  value.setSubtype(amf3::kDate);
  addRecord(amf3::kDate, "time", value);
}

void KTCSerializer::writeAmf3Date(const KTData& value) {
  objects_.add(nullptr);
  writeU8(amf3::kDate);
  writeU29(kInline);
  writeDouble(value.dateMilliseconds());
}

void KTCSerializer::readAmf3Bytes(KTData& value) {
  const FormHeader header = readHeader();
  if (header.known) return copyFromRecord(*header.known, amf3::kByteArray, KTData::Memory, value);
  readBlock(value, header.length());
  value.setSubtype(amf3::kByteArray);
  if (!failed()) addRecord(amf3::kByteArray, "bytes", value);
}

// The whole block, whatever range of it the value names.
void KTCSerializer::writeAmf3Bytes(const KTData& value) {
  const KTBuffer view = value.memoryRange();
  if (view.size > amf3::kGreatestLength) return writeAmf3Refused();
  objects_.add(nullptr);
  writeU8(amf3::kByteArray);
  writeU29(inlineHeader(view.size));
  writeBytes(view.data, view.size);
}
