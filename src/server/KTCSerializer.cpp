#include "server/KTCSerializer.h"

#include <algorithm>
#include <span>

#include "server/AmfMarkers.h"
#include "server/Message.h"

using namespace orv;

namespace {

// Room that a read array starts with; objects of a few members are by far the most.
constexpr u32 kReadReserve = 4;
constexpr u64 kArrayCost = sizeof(KTDataArray) + amf::kBlockOverhead;
constexpr u64 kTextCost = 32 + 4 + amf::kBlockOverhead;  // A string's block beyond its text.
constexpr u64 kBlockCost = sizeof(KTMemory) + 2 * amf::kBlockOverhead;

// In payloads of these types a byte of no meaning comes before the values.
bool hasLeadingByte(u8 messageType) {
  return messageType >= flv::kTypeDataAmf3 && messageType <= flv::kTypeCommandAmf3;
}

// The payload without that byte.
std::span<const u8> valuesOf(const SingleMessage* message) {
  if (!message) return {};
  const std::span<const u8> payload(message->payload(), message->payloadSize());
  return hasLeadingByte(message->type()) && !payload.empty() ? payload.subspan(1) : payload;
}

}  // namespace

KTCSerializer::KTCSerializer(const u8* data, u32 length, bool throwOnError)
    : KTParser(data, length, throwOnError), grant_(amf::kFreeMemory + remaining() * amf::kMemoryPerByte) {}

KTCSerializer::KTCSerializer(const SingleMessage* message, bool throwOnError)
    : KTCSerializer(valuesOf(message).data(), static_cast<u32>(valuesOf(message).size()), throwOnError) {}

KTCSerializer::~KTCSerializer() {
  cutBackReferences();
}

void KTCSerializer::readValue(KTData& value, bool resetTablesAfter) {
  readMember(value, nullptr);
  if (resetTablesAfter) resetTables();
}

void KTCSerializer::writeValue(const KTData& value, bool resetTablesAfter) {
  writeMember(value, nullptr);
  if (resetTablesAfter) resetTables();
}

void KTCSerializer::resetTables() {
  objects_.cutTo(0);
  traits_.clear();
}

bool KTCSerializer::mayNest() {
  if (depth_ < amf::kMaxNesting) return true;
  fail();
  return false;
}

// A new array, or null after a failure. Nobody owns it yet.
KTDataArray* KTCSerializer::newArray(i32 type, u32 reserve) {
  if (!charge(kArrayCost)) return nullptr;
  auto* const array = new KTDataArray(reserve);
  array->setType(type);
  return array;
}

// The same for one that holds what follows, with the next index of the table, which owns it.
KTDataArray* KTCSerializer::newObject(i32 type) {
  if (!mayNest() || !charge(2 * sizeof(KTDataArrayPtr))) return nullptr;
  objects_.makePlace();
  KTDataArray* const array = newArray(type, kReadReserve);
  if (array) objects_.add(array);
  return array;
}

bool KTCSerializer::isOpen(const KTDataArray* array) const {
  return std::find(open_, open_ + depth_, array) != open_ + depth_;
}

void KTCSerializer::enter(KTDataArray& array, std::string_view key, KTData&& value) {
  if (!noteReference(array, value) || array.appendWithinRoom(key, value)) return;
  if (charge(array.growthCost(key))) array.append(key, std::move(value));
}

void KTCSerializer::enterElement(KTDataArray& array, KTData&& value) {
  if (!noteReference(array, value) || array.appendElementWithinRoom(value)) return;
  if (charge(array.elementGrowthCost())) array.appendElement(std::move(value));
}

// Remembers a value that is about to be entered if it closes a cycle, which only a reference to an open array
// does: any other was complete before the arrays around the value were begun. False if memory to remember it
// isn't granted.
bool KTCSerializer::noteBackReference(KTDataArray& holder, KTDataArray* target) {
  if (!isOpen(target)) return true;
  if (!charge(2 * sizeof(BackReference))) return false;
  backReferences_.push_back({&holder, holder.size(), target});
  return true;
}

void KTCSerializer::cutBackReferences() {
  for (const BackReference& reference : backReferences_) {
    if (reference.index >= reference.holder->size()) continue;
    KTData& value = reference.holder->valueAt(reference.index);
    if (value.asArray() == reference.target.get()) value.clear();
  }
}

// Takes room for a count that is only a claim: no more than would fit the bytes left at their usual size.
void KTCSerializer::makeRoom(KTDataArray& array, u32 count, u32 usualSize) {
  const u32 likely = std::min(count, remaining() / usualSize);
  const u64 cost = likely * sizeof(KTData);
  if (likely <= kReadReserve || cost > grant_) return;
  charge(cost);
  array.reserve(likely);
}

// A String, empty if memory for it isn't granted.
void KTCSerializer::readText(KTData& value, std::string_view text) {
  value.setText(charge(text.size() + kTextCost) ? text : std::string_view());
}

// A Memory over a copy of the next bytes, or over none after a failure.
void KTCSerializer::readBlock(KTData& value, u32 length) {
  KTBuffer block;
  const bool granted = !failed() && charge(length <= remaining() ? length + kBlockCost : 0);
  if (const u8* const bytes = granted ? readBytes(length) : nullptr) {
    block = KTBuffer(length, nullptr);
    block.append(bytes, length);
  }
  value.setMemory(block);
}

void KTCSerializer::goBackTo(const Mark& mark) {
  rewind(mark.position);
  objects_.cutTo(mark.objects);
  strings_.cutTo(mark.strings);
}

amf::ClassName amf::classNameOf(const KTDataArray& array) {
  IndexText indexText;
  if (array.keyText(0, indexText) != kClassKey) return {false, kPlainClass};
  return {true, array.valueAt(0).text()};
}
