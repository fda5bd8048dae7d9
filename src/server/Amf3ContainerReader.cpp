// The AMF3 forms that hold other values.
//
// Arrays and objects enter the reference table before their content, so that it can refer to them. Vectors
// and dictionaries do so after it; a reference to one is read as a plain Object on its record.

#include "server/Amf3Reader.h"
#include "server/AmfMarkers.h"

namespace orv::amf {

namespace {

constexpr u8 kTrue = 1;
constexpr u32 kElementSize = 1;  // The least.

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

}  // namespace

// Reads a name and its value. Returns false at the empty name and on failure.
bool Amf3Reader::readPair(Pair& pair) {
  pair.key = readString();
  if (pair.key.empty() || in_.failed()) return false;
  read(pair.value);
  return !reading_.wasCut(pair.value);
}

void Amf3Reader::readNamed(KTDataArray& array) {
  for (Pair pair; !in_.failed() && readPair(pair); pair.value.clear())
    reading_.enter(array, pair.key, std::move(pair.value));
}

// Reads named entries that come before the dense ones and go behind them. They are paid for when they are
// read, so that all of them can be entered.
std::vector<Amf3Reader::Pair> Amf3Reader::readNamedAhead() {
  std::vector<Pair> named;
  for (Pair pair; !in_.failed() && readPair(pair); pair.value.clear()) {
    const u64 entryCost = 2 * (sizeof(KTData) + sizeof(u32) + pair.key.size());
    if (!reading_.charge(2 * sizeof(Pair) + entryCost)) break;
    named.push_back(std::move(pair));
  }
  return named;
}

// On the wire the named entries stand in front of the dense ones, in the array behind them.
void Amf3Reader::readArray(KTData& value) {
  const FormHeader header = readHeader();
  if (!header.usable || (header.known && header.known->type() != amf3::kArray)) return;
  const u32 count = header.length();
  if (!header.known && count > in_.remaining()) return in_.fail();
  KTDataArray* const array = header.known ? header.known : reading_.newObject(amf3::kArray);
  if (!array) return;
  value.setArray(array, KTData::EcmaArray);
  value.setSubtype(amf3::kArray);
  if (header.known) return;

  const Reading::Level level(reading_, array);
  if (count == 0) return readNamed(*array);
  std::vector<Pair> named = readNamedAhead();
  readDense(*array, count);
  for (Pair& pair : named) {
    if (reading_.noteReference(*array, pair.value)) array->append(pair.key, std::move(pair.value));
  }
}

void Amf3Reader::readDense(KTDataArray& array, u32 count) {
  reading_.makeRoom(array, count, kElementSize);
  for (u32 i = 0; i < count && !in_.failed(); ++i) {
    KTData element;
    read(element);
    if (!reading_.wasCut(element)) reading_.enterElement(array, std::move(element));
  }
}

void Amf3Reader::readObject(KTData& value) {
  const FormHeader header = readHeader();
  if (!header.usable || (header.known && header.known->type() != amf3::kObject)) return;
  const bool fits = header.bits >> amf3::kMemberCountShift <= in_.remaining();
  const bool external = (header.bits & amf3::kExternalizable) == amf3::kExternalizable;
  if (!header.known && (!fits || external)) return in_.fail();
  KTDataArray* const array = header.known ? header.known : reading_.newObject(amf3::kObject);
  if (!array) return;
  value.setArray(array, KTData::Amf3);
  value.setSubtype(amf3::kObject);
  if (header.known) return;

  const Reading::Level level(reading_, array);
  const i64 found = readClass(header.bits);
  if (found < 0) return;
  const auto index = static_cast<std::size_t>(found);
  readSealed(index, *array);
  if (classes_[index].header & amf3::kDynamic) readNamed(*array);
}

// Returns the index of the class that the header refers to or that follows it; -1 on failure.
i64 Amf3Reader::readClass(u32 header) {
  if ((header & amf3::kClassKindMask) != amf3::kKnownClass) return readNewClass(header);
  const u32 index = header >> 2;
  if (index < classes_.size() && classes_[index].members.size() <= in_.remaining()) return index;
  in_.fail();
  return -1;
}

i64 Amf3Reader::readNewClass(u32 header) {
  const u32 count = header >> amf3::kMemberCountShift;
  if (!reading_.charge(2 * sizeof(Class) + count * sizeof(Span) + kBlockOverhead)) return -1;
  const auto spanOf = [this](std::string_view text) {
    const auto* const start = reinterpret_cast<const u8*>(text.data());
    return text.empty() ? Span{0, 0}
                        : Span{static_cast<u32>(start - in_.bytes()), static_cast<u32>(text.size())};
  };
  Class made{header, spanOf(readString()), {}};
  made.members.reserve(count);
  for (u32 i = 0; i < count && !in_.failed(); ++i) made.members.push_back(spanOf(readString()));
  if (in_.failed()) return -1;
  classes_.push_back(std::move(made));
  return static_cast<i64>(classes_.size()) - 1;
}

// Reads the members that the class names, behind its own name. The table of classes may move meanwhile.
void Amf3Reader::readSealed(std::size_t classIndex, KTDataArray& array) {
  KTData name;
  reading_.readText(name, textOf(classes_[classIndex].name));
  reading_.enter(array, kClassKey, std::move(name));
  for (u32 i = 0; i < classes_[classIndex].members.size() && !in_.failed(); ++i) {
    KTData value;
    read(value);
    const std::string_view key = textOf(classes_[classIndex].members[i]);
    if (!reading_.wasCut(value)) reading_.enter(array, key, std::move(value));
  }
}

// Begins the record that stands for a vector or a dictionary. Returns null after a failure.
KTDataArray* Amf3Reader::openRecord(u8 marker, u32 count, const char* flagName, bool flag, KTData& value) {
  if (in_.failed() || !reading_.mayNest()) return nullptr;
  KTDataArray* const record = reading_.newArray(KTDataArray::kNoType, amf3::recordHeaderSize(marker));
  if (!record) return nullptr;
  value.setArray(record, KTData::Amf3);
  value.setSubtype(marker);
  reading_.enter(*record, amf3::kSizeKey, KTData::ofNumber(count));
  reading_.enter(*record, flagName, KTData::ofBool(flag));
  return record;
}

void Amf3Reader::closeRecord(KTDataArray* record) {
  if (reading_.charge(2 * sizeof(KTDataArray*))) reading_.objects.add(record);
}

void Amf3Reader::copyKnownRecord(KTDataArray* record, KTData& value) {
  if (record->type() == KTDataArray::kNoType) value.setArray(record, KTData::Object);
}

void Amf3Reader::readVector(u8 marker, KTData& value) {
  const FormHeader header = readHeader();
  if (header.known) return copyKnownRecord(header.known, value);
  const u32 count = header.length();
  const bool fixed = in_.readU8() == kTrue;
  KTData className;
  if (marker == amf3::kVectorObject) reading_.readText(className, readString());
  if (u64{count} * leastElementSize(marker) > in_.remaining()) return in_.fail();
  KTDataArray* const record = openRecord(marker, count, amf3::kFixedKey, fixed, value);
  if (!record) return;
  if (marker == amf3::kVectorObject) reading_.enter(*record, amf3::kVectorClassKey, std::move(className));

  const Reading::Level level(reading_, record);
  for (u32 i = 0; i < count && !in_.failed(); ++i) {
    KTData element;
    readVectorElement(marker, element);
    if (!reading_.wasCut(element)) reading_.enter(*record, amf3::kValueKey, std::move(element));
  }
  closeRecord(record);
}

// Those of a vector of int too come as unsigned numbers.
void Amf3Reader::readVectorElement(u8 marker, KTData& value) {
  if (marker == amf3::kVectorObject) return read(value);
  value.setNumber(marker == amf3::kVectorDouble ? in_.readDouble() : in_.readU32());
}

void Amf3Reader::readDictionary(KTData& value) {
  const FormHeader header = readHeader();
  if (header.known) return copyKnownRecord(header.known, value);
  const u32 count = header.length();
  const bool weak = in_.readU8() == kTrue;
  if (u64{count} * 2 > in_.remaining()) return in_.fail();
  KTDataArray* const record = openRecord(amf3::kDictionary, count, amf3::kWeakKey, weak, value);
  if (!record) return;
  readDictionaryPairs(count, *record);
  closeRecord(record);
}

// A pair of which either half was cut is left out whole.
void Amf3Reader::readDictionaryPairs(u32 count, KTDataArray& record) {
  const Reading::Level level(reading_, &record);
  for (u32 i = 0; i < count && !in_.failed(); ++i) {
    KTData key;
    KTData value;
    read(key);
    if (!in_.failed()) read(value);
    if (reading_.wasCut(value)) return;
    reading_.enter(record, amf3::kKeyKey, std::move(key));
    reading_.enter(record, amf3::kValueKey, std::move(value));
  }
}

}  // namespace orv::amf
