// The AMF3 forms that hold other values, reading and writing of each side by side.
//
// Arrays and objects enter the reference table before their content, so that it can refer to them. Vectors
// and dictionaries do so when they are written, and only after their content when they are read; a reference
// to one is read as a plain Object on its record.

#include "server/AmfMarkers.h"
#include "server/KTCSerializer.h"

using namespace orv;

namespace {

// The header of an object: bit 0 inline, bit 1 inline class, bit 2 externalizable, bit 3 dynamic.
constexpr u32 kKindMask = 3;
constexpr u32 kKnownClass = 1;
constexpr u32 kExternalizable = 7;
constexpr u32 kDynamic = 8;
constexpr u32 kMemberCountShift = 4;
constexpr u32 kWrittenHeader = 11;  // Inline, inline class, dynamic, no sealed member.

constexpr u8 kTrue = 1;
constexpr u32 kSmallElement = 2;
constexpr char kValueKey[] = "value";

// Entries of a record in front of its elements: the count and a flag, and a vector of objects' class name.
u32 recordHeaderSize(u8 marker) {
  return marker == amf3::kVectorObject ? 3 : 2;
}

u32 leastElementSize(u8 marker) {
  switch (marker) {
    case amf3::kVectorInt:
    case amf3::kVectorUint:
      return 4;
    case amf3::kVectorDouble:
      return 8;
    default:
      return 1;
  }
}

// Elements that a record really has, whatever it says of itself.
u32 elementCount(u8 marker, const KTDataArray& record) {
  const u32 before = recordHeaderSize(marker);
  return record.size() > before ? record.size() - before : 0;
}

KTData numberOf(u32 value) {
  KTData number;
  number.setNumber(value);
  return number;
}

KTData boolOf(bool value) {
  KTData flag;
  flag.setBool(value);
  return flag;
}

}  // namespace

// Names and their values, up to the empty name. False where they end.
bool KTCSerializer::readPair(Pair& pair) {
  pair.key = readAmf3String();
  if (pair.key.empty() || failed()) return false;
  readAmf3(pair.value);
  return !wasCut(pair.value);
}

void KTCSerializer::readNamed(KTDataArray& array) {
  for (Pair pair; !failed() && readPair(pair); pair.value.clear())
    enter(array, pair.key, std::move(pair.value));
}

// Named entries that come before the dense ones and go behind them. They are paid for when they are read, so
// that all of them can be entered.
std::vector<KTCSerializer::Pair> KTCSerializer::readNamedAhead() {
  std::vector<Pair> named;
  for (Pair pair; !failed() && readPair(pair); pair.value.clear()) {
    const u64 entryCost = 2 * (sizeof(KTData) + sizeof(u32) + pair.key.size());
    if (!charge(2 * sizeof(Pair) + entryCost)) break;
    named.push_back(std::move(pair));
  }
  return named;
}

void KTCSerializer::enterPaid(KTDataArray& array, std::vector<Pair>& named) {
  for (Pair& pair : named) {
    if (noteReference(array, pair.value)) array.append(pair.key, std::move(pair.value));
  }
}

// An entry with an empty key ends what a reader takes for the array.
void KTCSerializer::writePairs(const KTDataArray& array, u32 first) {
  IndexText indexText;
  for (u32 i = first; i < array.size(); ++i) {
    writeAmf3String(array.keyText(i, indexText));
    writeAmf3(array.valueAt(i));
  }
  writeAmf3String({});
}

// The wire has the named entries in front of the dense ones; the array has them behind.
void KTCSerializer::readAmf3Array(KTData& value) {
  const FormHeader header = readHeader();
  if (!header.usable || (header.known && header.known->type() != amf3::kArray)) return;
  const u32 count = header.length();
  if (!header.known && count > remaining()) return fail();
  KTDataArray* const array = header.known ? header.known : newObject(amf3::kArray);
  if (!array) return;
  value.setArray(array, KTData::EcmaArray);
  value.setSubtype(amf3::kArray);
  if (header.known) return;

  const Level level(*this, array);
  if (count == 0) return readNamed(*array);
  std::vector<Pair> named = readNamedAhead();
  makeRoom(*array, count, kSmallElement);
  for (u32 i = 0; i < count && !failed(); ++i) {
    KTData element;
    readAmf3(element);
    if (!wasCut(element)) enterElement(*array, std::move(element));
  }
  enterPaid(*array, named);
}

void KTCSerializer::readAmf3Object(KTData& value) {
  const FormHeader header = readHeader();
  if (!header.usable || (header.known && header.known->type() != amf3::kObject)) return;
  const bool sound =
      header.bits >> kMemberCountShift <= remaining() && (header.bits & kExternalizable) != kExternalizable;
  if (!header.known && !sound) return fail();
  KTDataArray* const array = header.known ? header.known : newObject(amf3::kObject);
  if (!array) return;
  value.setArray(array, KTData::Amf3);
  value.setSubtype(amf3::kObject);
  if (header.known) return;

  const Level level(*this, array);
  const i64 traits = readTraits(header.bits);
  if (traits < 0) return;
  readSealed(static_cast<std::size_t>(traits), *array);
  if (traits_[static_cast<std::size_t>(traits)].header & kDynamic) readNamed(*array);
}

// The index of the class that the header refers to or that follows it; -1 after a failure.
i64 KTCSerializer::readTraits(u32 header) {
  if ((header & kKindMask) != kKnownClass) return readNewTraits(header);
  const u32 index = header >> 2;
  if (index < traits_.size() && traits_[index].members.size() <= remaining()) return index;
  fail();
  return -1;
}

i64 KTCSerializer::readNewTraits(u32 header) {
  const u32 count = header >> kMemberCountShift;
  if (!charge(2 * sizeof(Traits) + count * sizeof(Span) + amf::kBlockOverhead)) return -1;
  const auto spanOf = [this](std::string_view text) {
    const auto* const start = reinterpret_cast<const u8*>(text.data());
    return text.empty() ? Span{0, 0} : Span{static_cast<u32>(start - bytes()), static_cast<u32>(text.size())};
  };
  Traits traits{header, spanOf(readAmf3String()), {}};
  traits.members.reserve(count);
  for (u32 i = 0; i < count && !failed(); ++i) traits.members.push_back(spanOf(readAmf3String()));
  if (failed()) return -1;
  traits_.push_back(std::move(traits));
  return static_cast<i64>(traits_.size()) - 1;
}

// The class name and the members that the class names. The table of classes may move while a value is read.
void KTCSerializer::readSealed(std::size_t traits, KTDataArray& array) {
  KTData name;
  readText(name, textOf(traits_[traits].className));
  enter(array, amf::kClassKey, std::move(name));
  for (u32 i = 0; i < traits_[traits].members.size() && !failed(); ++i) {
    KTData value;
    readAmf3(value);
    if (!wasCut(value)) enter(array, textOf(traits_[traits].members[i]), std::move(value));
  }
}

void KTCSerializer::writeAmf3Object(const KTDataArray& array) {
  const amf::ClassName name = amf::classNameOf(array);
  writeU29(kWrittenHeader);
  writeAmf3String(name.text == amf::kPlainClass ? std::string_view() : name.text);
  writePairs(array, name.firstMember());
}

void KTCSerializer::writeAmf3Container(u8 marker, const KTData& value) {
  KTDataArray* const array = value.asArray();
  const i64 known = objects_.find(array);
  if (!array || (known < 0 && depth_ == amf::kMaxNesting)) return writeAmf3Refused();
  writeU8(marker);
  if (known >= 0) return writeU29(static_cast<u32>(known) << 1);
  objects_.add(array);
  const Level level(*this, array);
  writeAmf3Content(marker, *array);
}

void KTCSerializer::writeAmf3Content(u8 marker, const KTDataArray& array) {
  switch (marker) {
    case amf3::kArray:
      writeU29(1);  // No dense part: every entry goes out by name.
      return writePairs(array, 0);
    case amf3::kObject:
      return writeAmf3Object(array);
    case amf3::kDictionary:
      return writeDictionary(array);
    default:
      return writeVector(marker, array);
  }
}

// Begins the record that stands for a vector or a dictionary; null after a failure.
KTDataArray* KTCSerializer::openRecord(u8 marker, u32 count, const char* flagName, bool flag, KTData& value) {
  if (failed() || !mayNest()) return nullptr;
  KTDataArray* const record = newArray(KTDataArray::kNoType, recordHeaderSize(marker));
  if (!record) return nullptr;
  value.setArray(record, KTData::Amf3);
  value.setSubtype(marker);
  enter(*record, "size", numberOf(count));
  enter(*record, flagName, boolOf(flag));
  return record;
}

void KTCSerializer::readVector(u8 marker, KTData& value) {
  const FormHeader header = readHeader();
  if (header.known) {
    if (header.known->type() == KTDataArray::kNoType) value.setArray(header.known, KTData::Object);
    return;
  }
  const u32 count = header.length();
  const bool fixed = readU8() == kTrue;
  KTData className;
  if (marker == amf3::kVectorObject) readText(className, readAmf3String());
  if (u64{count} * leastElementSize(marker) > remaining()) return fail();
  KTDataArray* const record = openRecord(marker, count, "fixed", fixed, value);
  if (!record) return;
  if (marker == amf3::kVectorObject) enter(*record, "closure", std::move(className));

  const Level level(*this, record);
  for (u32 i = 0; i < count && !failed(); ++i) {
    KTData element;
    readVectorElement(marker, element);
    if (!wasCut(element)) enter(*record, kValueKey, std::move(element));
  }
  if (charge(2 * sizeof(KTDataArrayPtr))) objects_.add(record);
}

void KTCSerializer::writeVector(u8 marker, const KTDataArray& array) {
  writeU29(elementCount(marker, array) << 1 | 1);
  writeU8(array.valueAt(1).toBool());
  if (marker == amf3::kVectorObject) writeAmf3String(array.valueAt(2).text());
  for (u32 i = recordHeaderSize(marker); i < array.size(); ++i) writeVectorElement(marker, array.valueAt(i));
}

// Those of a vector of int too come as unsigned numbers.
void KTCSerializer::readVectorElement(u8 marker, KTData& value) {
  if (marker == amf3::kVectorObject) return readAmf3(value);
  value.setNumber(marker == amf3::kVectorDouble ? readDouble() : readU32());
}

void KTCSerializer::writeVectorElement(u8 marker, const KTData& value) {
  if (marker == amf3::kVectorObject) return writeAmf3(value);
  if (marker == amf3::kVectorDouble) return writeDouble(value.toDouble());
  writeU32(value.toUInt());
}

void KTCSerializer::readDictionary(KTData& value) {
  const FormHeader header = readHeader();
  if (header.known) {
    if (header.known->type() == KTDataArray::kNoType) value.setArray(header.known, KTData::Object);
    return;
  }
  const u32 count = header.length();
  const bool weak = readU8() == kTrue;
  if (u64{count} * 2 > remaining()) return fail();
  KTDataArray* const record = openRecord(amf3::kDictionary, count, "weak", weak, value);
  if (!record) return;
  readDictionaryPairs(count, *record);
  if (charge(2 * sizeof(KTDataArrayPtr))) objects_.add(record);
}

// A pair of which either half was cut is left out whole.
void KTCSerializer::readDictionaryPairs(u32 count, KTDataArray& array) {
  const Level level(*this, &array);
  for (u32 i = 0; i < count && !failed(); ++i) {
    KTData key;
    KTData value;
    readAmf3(key);
    if (!failed()) readAmf3(value);
    if (wasCut(value)) return;
    enter(array, "key", std::move(key));
    enter(array, kValueKey, std::move(value));
  }
}

void KTCSerializer::writeDictionary(const KTDataArray& array) {
  const u32 pairs = elementCount(amf3::kDictionary, array) / 2;
  const u32 first = recordHeaderSize(amf3::kDictionary);
  writeU29(pairs << 1 | 1);
  writeU8(array.valueAt(1).toBool());
  for (u32 i = first; i < first + 2 * pairs; ++i) writeAmf3(array.valueAt(i));
}
