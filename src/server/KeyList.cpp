#include "server/KeyList.h"

#include <strings.h>

#include <algorithm>
#include <charconv>

#include "server/AmfLimits.h"

namespace orv {

namespace {

constexpr std::size_t kUsualKey = 12;  // "videocodecid"
constexpr std::size_t kFirstKeys = 4;

// The next capacity of a vector that must take `added` more: double, and never a tiny one.
template <class T>
std::size_t grown(const std::vector<T>& vector, std::size_t added, std::size_t least) {
  return std::max({2 * vector.capacity(), vector.size() + added, least});
}

template <class T>
bool full(const std::vector<T>& vector, std::size_t added) {
  return vector.capacity() - vector.size() < added;
}

template <class T>
void makeRoom(std::vector<T>& vector, std::size_t added, std::size_t least) {
  if (full(vector, added)) vector.reserve(grown(vector, added, least));
}

std::string_view upToNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

}  // namespace

bool equalNoCase(std::string_view a, std::string_view b) {
  a = upToNul(a);
  b = upToNul(b);
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view KeyList::decimal(u32 index, Digits& digits) {
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), index).ptr;
  return {digits.data(), static_cast<std::size_t>(end - digits.data())};
}

bool KeyList::isNextIndex(std::string_view key) const {
  Digits digits;
  return !key.empty() && key[0] >= '0' && key[0] <= '9' && key == decimal(size_, digits);
}

u64 KeyList::growthCost(std::string_view key) const {
  if (form_ == Form::indices) {
    if (isNextIndex(key)) return 0;
    return (kFirstKeys + 2 * u64{size_}) * (sizeof(Digits) + sizeof(u32) + kUsualKey) + key.size();
  }
  u64 cost = 0;
  if (full(text_, key.size())) cost += grown(text_, key.size(), kFirstKeys * kUsualKey) + amf::kBlockOverhead;
  if (full(ends_, 1)) cost += grown(ends_, 1, kFirstKeys) * sizeof(u32) + amf::kBlockOverhead;
  return cost;
}

void KeyList::append(std::string_view key) {
  if (form_ == Form::indices) {
    if (isNextIndex(key)) return appendIndex();
    pack();
  }
  if (form_ == Form::packed) {
    appendPacked(key);
  } else {
    strings_.emplace_back(key.data(), static_cast<i64>(key.size()));
  }
  ++size_;
}

void KeyList::appendIndex() {
  if (form_ == Form::indices) {
    ++size_;
    return;
  }
  Digits digits;
  append(decimal(size_, digits));
}

std::string_view KeyList::text(u32 index, Digits& digits) const {
  switch (form_) {
    case Form::indices:
      return decimal(index, digits);
    case Form::packed:
      return packedText(index);
    case Form::strings:
      break;
  }
  return strings_[index].view();
}

std::string_view KeyList::packedText(u32 index) const {
  const u32 begin = index ? ends_[index - 1] : 0;
  return {text_.data() + begin, ends_[index] - begin};
}

void KeyList::pack() {
  Digits digits;
  for (u32 i = 0; i < size_; ++i) appendPacked(decimal(i, digits));
  form_ = Form::packed;
}

void KeyList::appendPacked(std::string_view key) {
  makeRoom(text_, key.size(), kFirstKeys * kUsualKey);
  makeRoom(ends_, 1, kFirstKeys);
  text_.insert(text_.end(), key.begin(), key.end());
  ends_.push_back(static_cast<u32>(text_.size()));
}

std::vector<KTString>& KeyList::strings() const {
  if (form_ == Form::strings) return strings_;
  std::vector<KTString> made;
  made.reserve(size_);
  Digits digits;
  for (u32 i = 0; i < size_; ++i) {
    const std::string_view key = text(i, digits);
    made.emplace_back(key.data(), static_cast<i64>(key.size()));
  }
  strings_ = std::move(made);
  form_ = Form::strings;
  text_ = {};
  ends_ = {};
  return strings_;
}

}  // namespace orv
