#include "server/KTDataArray.h"

#include <algorithm>

#include "server/AmfLimits.h"
#include "util/KTThrowable.h"

const KTData KTDataArray::missing{};

KTDataArray::KTDataArray(u32 reserve) : reserve_(std::max(reserve, u32{1})) {
  KT_ASSERT(reserve > 0);
}

KTDataArray::KTDataArray(const KTDataArray& other)
    : KTObject(), type_(other.type_), reserve_(other.reserve_), keys_(other.keys_), values_(other.values_) {}

// Walks the tree below with one finger: an array that nobody else holds is entered, emptied from its end, and
// deleted on the way back up.
KTDataArray::~KTDataArray() {
  KTDataArray* at = this;
  for (;;) {
    while (!at->values_.empty()) at = at->takeDownLast();
    if (at == this) return;
    KTDataArray* const done = std::exchange(at, at->above_);
    done->release();
  }
}

// Drops the last value. Returns the array to go on with: this one, or the one that only that value held,
// whose count then belongs to the walk.
KTDataArray* KTDataArray::takeDownLast() {
  if (!KTData::isArray(values_.back().type())) {
    values_.pop_back();
    return this;
  }
  KTData last = std::move(values_.back());
  values_.pop_back();
  KTDataArray* const array = last.asArray();
  if (!array || array->getRefCount() != 1) return this;
  array->addRef();
  array->above_ = this;
  return array;
}

std::size_t KTDataArray::nextCapacity() const {
  return values_.empty() ? reserve_ : 2 * values_.size();
}

u64 KTDataArray::elementGrowthCost() const {
  if (!isFull()) return 0;
  return nextCapacity() * sizeof(KTData) + orv::amf::kBlockOverhead;
}

void KTDataArray::push(KTData&& value) {
  if (isFull()) values_.reserve(nextCapacity());
  values_.push_back(std::move(value));
}

bool KTDataArray::set(u32 index, orv::KeyView key, KTData value) {
  if (index < size()) {
    keys_.at(index).assign(key.data(), static_cast<i64>(key.size()));
    values_[index].swap(value);
    return true;
  }
  extendTo(index);
  push(std::move(value));
  try {
    keys_.append(key);
  } catch (...) {
    values_.pop_back();  // Keys and values stay as many.
    throw;
  }
  return true;
}

void KTDataArray::appendElement(KTData value) {
  if (keys_.areIndices()) {
    push(std::move(value));
    keys_.appendIndex();
  } else {
    append(orv::IndexText(size()).view(), std::move(value));
  }
}

void KTDataArray::extendTo(u32 count) {
  while (size() < count) append("", KTData());
}

const KTString& KTDataArray::keyAt(u32 index) const {
  static const KTString none;
  return index < size() ? keys_.at(index) : none;
}

KTData& KTDataArray::valueAt(u32 index) {
  if (index >= size()) set(index, "", KTData());
  return values_[index];
}

KTString& KTDataArray::keyAt(u32 index) {
  if (index >= size()) set(index, "", KTData());
  return keys_.at(index);
}

std::string_view KTDataArray::keyText(u32 index, orv::IndexText& indexText) const {
  return index < size() ? keys_.text(index, indexText) : std::string_view("");
}

const KTData& KTDataArray::find(const char* key) const {
  if (!key) return missing;
  orv::IndexText indexText;
  for (u32 i = 0; i < size(); ++i) {
    if (orv::equalNoCase(keys_.text(i, indexText), key)) return values_[i];
  }
  return missing;
}

bool KTDataArray::sameShape(const KTDataArray& other) const {
  if (size() != other.size() || type_ != other.type_) return false;
  orv::IndexText mine;
  orv::IndexText theirs;
  for (u32 i = 0; i < size(); ++i) {
    if (keys_.text(i, mine) != other.keys_.text(i, theirs)) return false;
  }
  return true;
}
