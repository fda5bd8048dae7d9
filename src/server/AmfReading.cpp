#include "server/AmfReading.h"

#include <algorithm>

#include "util/KTBuffer.h"

namespace orv::amf {

namespace {

// Room that a read array starts with; objects of a few members are by far the most.
constexpr u32 kReadReserve = 4;
constexpr u64 kArrayCost = sizeof(KTDataArray) + kBlockOverhead;
constexpr u64 kTextCost = 32 + 4 + kBlockOverhead;  // A string's block beyond its text.
constexpr u64 kBlockCost = sizeof(KTMemory) + u64{2} * kBlockOverhead;

}  // namespace

Reading::~Reading() {
  for (const BackReference& reference : backReferences_) {
    if (reference.index >= reference.holder->size()) continue;
    KTData& value = reference.holder->valueAt(reference.index);
    if (value.asArray() == reference.target.get()) value.clear();
  }
}

bool Reading::mayNest() {
  if (depth_ < kMaxNesting) return true;
  in.fail();
  return false;
}

KTDataArray* Reading::newArray(i32 type, u32 reserve) {
  if (!charge(kArrayCost)) return nullptr;
  auto* const array = new KTDataArray(reserve);
  array->setType(type);
  return array;
}

KTDataArray* Reading::newObject(i32 type) {
  if (!mayNest() || !charge(2 * sizeof(KTDataArray*))) return nullptr;
  objects.makePlace();
  KTDataArray* const array = newArray(type, kReadReserve);
  if (array) objects.add(array);
  return array;
}

void Reading::makeRoom(KTDataArray& array, u32 count, u32 leastSize) {
  const u32 likely = std::min(count, in.remaining() / leastSize);
  const u64 cost = likely * sizeof(KTData);
  if (likely <= kReadReserve || cost > grant_) return;
  charge(cost);
  array.reserve(likely);
}

void Reading::enter(KTDataArray& array, std::string_view key, KTData&& value) {
  if (!noteReference(array, value) || array.appendWithinRoom(key, value)) return;
  if (charge(array.growthCost(key))) array.append(key, std::move(value));
}

void Reading::enterElement(KTDataArray& array, KTData&& value) {
  if (!noteReference(array, value) || array.appendElementWithinRoom(value)) return;
  if (charge(array.elementGrowthCost())) array.appendElement(std::move(value));
}

bool Reading::isOpen(const KTDataArray* array) const {
  return std::find(open_, open_ + depth_, array) != open_ + depth_;
}

// Only a reference to an open array closes a cycle: any other array was complete before those around the
// value were begun.
bool Reading::noteBackReference(KTDataArray& holder, KTDataArray* target) {
  if (!isOpen(target)) return true;
  if (!charge(2 * sizeof(BackReference))) return false;
  backReferences_.push_back({&holder, holder.size(), target});
  return true;
}

void Reading::readText(KTData& value, std::string_view text) {
  value.setText(text.empty() || charge(text.size() + kTextCost) ? text : std::string_view());
}

void Reading::readBlock(KTData& value, u32 length) {
  KTBuffer block;
  const bool granted = !in.failed() && charge(length <= in.remaining() ? length + kBlockCost : 0);
  if (const u8* const bytes = granted ? in.readBytes(length) : nullptr) {
    block = KTBuffer(length, nullptr);
    block.append(bytes, length);
  }
  value.setMemory(block);
}

}  // namespace orv::amf
