#include "server/Amf3Reader.h"

#include <new>

#include "server/AmfMarkers.h"
#include "util/KTThrowable.h"

namespace orv::amf {

namespace {

double signExtended(u32 value) {
  const u32 signBit = (amf3::kIntegerMask + 1) >> 1;
  return static_cast<i32>(value & amf3::kIntegerMask) - static_cast<i32>((value & signBit) << 1);
}

}  // namespace

void Amf3Reader::read(KTData& value) {
  const u8 marker = in_.readU8();
  if (!in_.failed()) readForm(marker, value);
}

void Amf3Reader::readForm(u8 marker, KTData& value) {
  switch (marker) {
    case amf3::kXmlDocument:
    case amf3::kXml:
      return readXml(marker, value);
    case amf3::kDate:
      return readDate(value);
    case amf3::kArray:
      return readArray(value);
    case amf3::kObject:
      return readObject(value);
    case amf3::kByteArray:
      return readBytes(value);
    case amf3::kVectorInt:
    case amf3::kVectorUint:
    case amf3::kVectorDouble:
    case amf3::kVectorObject:
      return readVector(marker, value);
    case amf3::kDictionary:
      return readDictionary(value);
    default:
      return readPlain(marker, value);
  }
}

void Amf3Reader::readPlain(u8 marker, KTData& value) {
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
      value.setNumber(in_.readDouble());
      break;
    case amf3::kString:
      reading_.readText(value, readString());
      break;
    default:
      return;
  }
  value.setSubtype(marker);
}

// Seven bits in each of up to three bytes, and all eight of a fourth.
u32 Amf3Reader::readU29() {
  u32 value = 0;
  for (int i = 0; i < 3; ++i) {
    const u8 byte = in_.readU8();
    value = value << 7 | (byte & 0x7F);
    if (!(byte & amf3::kMoreFollows)) return in_.failed() ? 0 : value;
  }
  value = value << 8 | in_.readU8();
  return in_.failed() ? 0 : value;
}

// Returns the text where it lies in the buffer; empty after a failure.
std::string_view Amf3Reader::readString() {
  const u32 header = readU29();
  if (header == amf3::kInline || in_.failed()) return {};
  const u32 number = header >> 1;
  if (!(header & amf3::kInline)) {
    if (number < strings_.size()) return textOf(strings_[number]);
    in_.fail();
    return {};
  }
  const std::string_view text = in_.viewBytes(number);
  if (in_.failed() || !reading_.charge(2 * sizeof(Span))) return {};
  strings_.add({static_cast<u32>(in_.position()) - number, number});
  return text;
}

// A place of the table that holds no array is no reference: the header is then that of an inline form.
Amf3Reader::FormHeader Amf3Reader::readHeader() {
  const u32 bits = readU29();
  if (in_.failed()) return {false, 0, nullptr};
  if (bits & amf3::kInline) return {true, bits, nullptr};
  if (bits >> 1 < reading_.objects.size()) return {true, bits, reading_.objects[bits >> 1]};
  in_.fail();
  return {false, 0, nullptr};
}

// Texts, dates and byte arrays can be referred to: each gets a record in the table that holds its value.
void Amf3Reader::addRecord(i32 type, const char* key, const KTData& value) {
  if (!reading_.charge(2 * sizeof(KTDataArray*))) return;
  reading_.objects.makePlace();
  KTDataArray* const record = reading_.newArray(type, 1);
  if (!record) return;
  reading_.objects.add(record);
  reading_.enter(*record, key, KTData(value));
}

// Leaves the value as it was if the record is of another kind.
void Amf3Reader::copyFromRecord(const KTDataArray& record, i32 type, u8 valueType, KTData& value) {
  const KTData& held = record.valueAt(0);
  if (record.type() != type || held.type() != valueType) return;
  if (reading_.charge(held.text().size() + kBlockOverhead)) value = held;
}

// A text that there is no memory for breaks off the value, as a buffer does that can't grow.
void Amf3Reader::readXml(u8 marker, KTData& value) try {
  const FormHeader header = readHeader();
  if (header.known) return copyFromRecord(*header.known, marker, KTData::Xml, value);
  const std::string_view text = header.usable ? in_.viewBytes(header.length()) : std::string_view();
  const bool granted = !in_.failed() && reading_.charge(2 * (text.size() + kBlockOverhead));
  value.setText(granted ? text : std::string_view());
  value.setType(KTData::Xml);
  value.setSubtype(marker);
  if (granted) addRecord(marker, "xml", value);
} catch (const std::bad_alloc&) {
  throw KTOutOfMemory();
}

void Amf3Reader::readDate(KTData& value) {
  value.setDate(0, 0);
  value.setSubtype(amf3::kDate);
  const FormHeader header = readHeader();
  if (header.known) return copyFromRecord(*header.known, amf3::kDate, KTData::Date, value);
  const double milliseconds = in_.readDouble();
  if (in_.failed()) return;
  value.setDate(milliseconds, 0);
  value.setSubtype(amf3::kDate);
  addRecord(amf3::kDate, "time", value);
}

void Amf3Reader::readBytes(KTData& value) {
  const FormHeader header = readHeader();
  if (header.known) return copyFromRecord(*header.known, amf3::kByteArray, KTData::Memory, value);
  reading_.readBlock(value, header.length());
  value.setSubtype(amf3::kByteArray);
  if (!in_.failed()) addRecord(amf3::kByteArray, "bytes", value);
}

}  // namespace orv::amf
