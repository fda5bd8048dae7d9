// The keys of a KTDataArray, kept so that reading a file costs little.
//
// A dense array's keys are its indices, and most keys of a file are only ever compared or written again. So a
// list starts as a mere count, while every key is the decimal text of its index; becomes a row of packed
// texts at the first other key; and turns into KTStrings only when somebody asks for one by reference. What a
// caller sees is the same in all three forms. For one thread at a time, lookups included.

#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "util/KTString.h"

namespace orv {

// A key as callers hold one, borrowed for the call. A null text is the empty key.
class KeyView : public std::string_view {
 public:
  KeyView(const char* text) : std::string_view(text ? text : "") {}
  KeyView(const KTString& text) : std::string_view(text.view()) {}
  KeyView(std::string_view text) : std::string_view(text) {}
};

// As _stricmp takes them: without regard to the case of ASCII letters, up to the first NUL.
bool equalNoCase(std::string_view a, std::string_view b);

class KeyList {
 public:
  // Place for the decimal text of an index.
  using Digits = std::array<char, 10>;

  static std::string_view decimal(u32 index, Digits& digits);

  u32 size() const { return size_; }
  // True while every key is the decimal text of its index; so is an empty list.
  bool areIndices() const { return form_ == Form::indices; }

  // An upper bound of the heap bytes that appending the key takes; 0 while there is room.
  u64 growthCost(std::string_view key) const;

  // `key` must not lie in this list.
  void append(std::string_view key);
  void appendIndex();

  // Valid until the list changes; `digits` may hold the result.
  std::string_view text(u32 index, Digits& digits) const;
  const KTString& at(u32 index) const { return strings()[index]; }
  KTString& at(u32 index) { return strings()[index]; }

 private:
  enum class Form : u8 { indices, packed, strings };

  bool isNextIndex(std::string_view key) const;
  std::string_view packedText(u32 index) const;
  void pack();
  void appendPacked(std::string_view key);
  std::vector<KTString>& strings() const;

  u32 size_ = 0;
  mutable Form form_ = Form::indices;
  mutable std::vector<char> text_;  // Packed: the texts one behind the other
  mutable std::vector<u32> ends_;   // and where each one ends.
  mutable std::vector<KTString> strings_;
};

}  // namespace orv
