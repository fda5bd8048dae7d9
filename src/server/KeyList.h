// The keys of a KTDataArray, kept so that reading a file costs little.
//
// A dense array's keys are its indices, and most keys of a file are only compared or written again. So a list
// is a mere count as long as every key is the decimal text of its index; the first other key turns it into a
// block of packed texts; and it becomes KTStrings only when one is asked for by reference. Callers see the
// same in all three forms. For one thread at a time, lookups included.

#pragma once

#include <array>
#include <cstring>
#include <memory>
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

inline std::string_view upToNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

// Compares up to the first NUL, without regard to the case of ASCII letters.
bool equalNoCase(std::string_view a, std::string_view b);

// The decimal text of an index, which counts up fast.
class IndexText {
 public:
  explicit IndexText(u32 index = 0) { set(index); }

  void set(u32 index);
  void next();
  std::string_view view() const { return {digits_.data() + begin_, digits_.size() - begin_}; }

 private:
  std::array<char, 10> digits_;  // Right-aligned.
  u32 begin_ = 0;
};

class KeyList {
 public:
  KeyList() = default;
  KeyList(const KeyList& other);
  KeyList& operator=(const KeyList&) = delete;

  u32 size() const { return size_; }
  // Returns true while every key is the decimal text of its index, and for an empty list.
  bool areIndices() const { return form_ == Form::indices; }

  // Takes a hint: so many keys are likely to come.
  void expect(u32 count) { expected_ = count; }
  // Returns an upper bound of the heap bytes that appending the key takes; 0 while there is room.
  u64 growthCost(std::string_view key) const;

  // `key` must not lie in this list.
  void append(std::string_view key);
  void appendIndex();
  // Append if that takes no memory; else return false and change nothing.
  bool appendWithinRoom(std::string_view key) {
    if (form_ != Form::packed || room() < key.size() + sizeof(u32)) return false;
    put(key);
    return true;
  }
  bool appendIndexWithinRoom() {
    if (form_ != Form::indices) return false;
    ++size_;
    return true;
  }

  // Valid until the list changes; `indexText` may hold the result.
  std::string_view text(u32 index, IndexText& indexText) const;
  const KTString& at(u32 index) const { return strings()[index]; }
  KTString& at(u32 index) { return strings()[index]; }

 private:
  enum class Form : u8 { indices, packed, strings };

  // The packed form is one block: the texts from its front, and where each one ends, from its back.
  char* texts() const { return reinterpret_cast<char*>(block_.get()); }
  u32& endOf(u32 index) const { return block_[words_ - 1 - index]; }
  u64 room() const { return (u64{words_} - size_) * sizeof(u32) - textSize_; }
  void put(std::string_view key) {
    if (!key.empty()) std::memcpy(texts() + textSize_, key.data(), key.size());
    textSize_ += static_cast<u32>(key.size());
    endOf(size_++) = textSize_;
  }
  std::string_view packedText(u32 index) const;
  u64 grownWords(std::size_t keyLength) const;
  void grow(u64 words);
  void pack(std::size_t keyLength);
  bool isNextIndex(std::string_view key) const;
  std::vector<KTString>& strings() const;

  mutable Form form_ = Form::indices;
  u32 size_ = 0;
  u32 expected_ = 0;
  mutable u32 words_ = 0;  // Of the block.
  u32 textSize_ = 0;
  mutable std::unique_ptr<u32[]> block_;
  mutable std::unique_ptr<std::vector<KTString>> strings_;
};

}  // namespace orv
