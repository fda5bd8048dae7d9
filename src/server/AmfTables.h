// The reference tables of AMF readers and writers.
//
// A search is a plain walk while a table is short, as it is in all ordinary data; a long one gets an index,
// so that no message costs more to write than its length suggests.

#pragma once

#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "server/KTDataArray.h"

namespace orv::amf {

// The arrays of a message, in the order in which they were met. Holds a count on each; a null entry takes an
// index and nothing else. Most messages have a few, for which no memory is taken.
class ObjectTable {
 public:
  ObjectTable() = default;
  ObjectTable(const ObjectTable&) = delete;
  ObjectTable& operator=(const ObjectTable&) = delete;
  ~ObjectTable() { cutTo(0); }

  u32 size() const { return size_; }
  KTDataArray* operator[](u32 index) const { return index < kFew ? few_[index] : more_[index - kFew]; }
  // Makes sure that the next `add` can't fail.
  void makePlace();
  void add(KTDataArray* array);
  void cutTo(u32 size);
  // Returns the first index of an array; -1 if it isn't there.
  i64 find(const KTDataArray* array);

 private:
  using Index = std::unordered_map<const KTDataArray*, u32>;

  static constexpr u32 kFew = 8;

  u32 size_ = 0;
  u32 indexed_ = 0;  // Entries that the index knows.
  KTDataArray* few_[kFew];
  std::vector<KTDataArray*> more_;
  std::unique_ptr<Index> index_;
};

// A text by its place in the bytes that are read or were written.
struct Span {
  u32 begin;
  u32 length;

  std::string_view in(const u8* bytes) const {
    return {reinterpret_cast<const char*>(bytes) + begin, length};
  }
};

// The AMF3 strings of a message. They lie in its bytes, which the caller holds.
class StringTable {
 public:
  u32 size() const { return static_cast<u32>(strings_.size()); }
  Span operator[](u32 index) const { return strings_[index]; }
  void add(Span text) { strings_.push_back(text); }
  void cutTo(u32 size);
  // Returns the index of a text among `bytes`; -1 if it isn't there.
  i64 find(std::string_view text, const u8* bytes);

 private:
  using Index = std::unordered_multimap<std::size_t, u32>;  // By hash.

  i64 findIndexed(std::string_view text, const u8* bytes);

  std::vector<Span> strings_;
  std::unique_ptr<Index> index_;
  u32 indexed_ = 0;
};

}  // namespace orv::amf
