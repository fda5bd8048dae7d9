// The counted, ordered list of (key, value) entries that stands for every AMF container: objects, associative
// and dense arrays, and the typed records of AMF3 (dates, byte arrays, vectors, dictionaries).
//
// Keys need not be unique and may be empty. Values may refer to arrays in any shape; cycles aren't detected.
// For one thread at a time, lookups included.

#pragma once

#include <vector>

#include "server/KTData.h"
#include "server/KeyList.h"
#include "util/KTObject.h"

class KTDataArray : public KTObject {
 public:
  static constexpr u32 kUsualReserve = 10;
  static constexpr i32 kNoType = 6;

  // Room for `reserve` entries, at least 1, is taken with the first of them.
  explicit KTDataArray(u32 reserve = kUsualReserve);
  // Copies entries and type; shares arrays and blocks among the values.
  KTDataArray(const KTDataArray& other);
  KTDataArray& operator=(const KTDataArray&) = delete;
  // Takes down arrays inside arrays without calling itself, however deep they lie.
  ~KTDataArray() override;

  u32 size() const { return static_cast<u32>(values_.size()); }
  // Never shrinks.
  void reserve(u32 count) {
    values_.reserve(count);
    keys_.expect(count);
  }

  // Returns the marker of the form that the array was read from; 6 until it is set.
  i32 type() const { return type_; }
  void setType(i32 type) { type_ = type; }

  // Replaces the entry at `index`, or appends it, filling up with empty keys and Undefined values. Always
  // returns true. Values are copied unless they are temporaries; a key must not be a view into this array.
  bool set(u32 index, orv::KeyView key, KTData value);
  bool append(orv::KeyView key, KTData value) { return set(size(), key, std::move(value)); }
  // Appends it with the decimal text of its index as key.
  void appendElement(KTData value);
  // Append if that takes no memory. Otherwise return false, and the value is untouched.
  bool appendWithinRoom(std::string_view key, KTData& value) {
    return !isFull() && keys_.appendWithinRoom(key) && take(value);
  }
  bool appendElementWithinRoom(KTData& value) {
    return !isFull() && keys_.appendIndexWithinRoom() && take(value);
  }

  // Return a shared Undefined and the empty key past the end. References hold until the array changes.
  const KTData& valueAt(u32 index) const { return index < size() ? values_[index] : missing; }
  const KTString& keyAt(u32 index) const;
  // Make the array longer first where `index` lies past the end.
  KTData& valueAt(u32 index);
  KTString& keyAt(u32 index);

  // Returns the key as a view, which makes no string; `indexText` may hold it.
  std::string_view keyText(u32 index, orv::IndexText& indexText) const;
  // Returns true while every key is the decimal text of its index, as in a dense array.
  bool hasIndexKeys() const { return keys_.areIndices(); }

  // Returns the first entry of that key, without regard to case; the shared Undefined if there is none, or
  // the key is null.
  const KTData& find(const char* key) const;

  // Returns whether both have the same count, type and keys, with regard to case, whatever their values.
  bool sameShape(const KTDataArray& other) const;

  // Return upper bounds of the heap bytes that one more entry takes; 0 while there is room.
  u64 growthCost(std::string_view key) const { return elementGrowthCost() + keys_.growthCost(key); }
  u64 elementGrowthCost() const;

 private:
  static const KTData missing;

  bool isFull() const { return values_.size() == values_.capacity(); }
  bool take(KTData& value) {
    values_.push_back(std::move(value));
    return true;
  }
  std::size_t nextCapacity() const;
  void push(KTData&& value);
  void extendTo(u32 count);
  KTDataArray* takeDownLast();

  i32 type_ = kNoType;
  u32 reserve_;
  orv::KeyList keys_;
  std::vector<KTData> values_;
  KTDataArray* above_ = nullptr;  // While a tree of arrays is taken down: the one that held this one.
};

class KTDataArrayPtr : public KTPtr<KTDataArray> {
 public:
  using KTPtr<KTDataArray>::KTPtr;
};
