#include "server/KeyList.h"

#include <strings.h>

#include <algorithm>
#include <utility>

#include "server/AmfLimits.h"

namespace orv {

namespace {

constexpr u32 kUsualKeyWords = 4;  // "videocodecid", and where it ends.
constexpr u32 kFirstKeys = 4;
constexpr u64 kMostWords = u64{1} << 29;  // So that no text ends beyond 32 bits.

}  // namespace

bool equalNoCase(std::string_view a, std::string_view b) {
  a = upToNul(a);
  b = upToNul(b);
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

void IndexText::set(u32 index) {
  begin_ = static_cast<u32>(digits_.size());
  do {
    digits_[--begin_] = static_cast<char>('0' + index % 10);
    index /= 10;
  } while (index > 0);
}

void IndexText::next() {
  u32 at = static_cast<u32>(digits_.size()) - 1;
  while (at > begin_ && digits_[at] == '9') digits_[at--] = '0';
  if (digits_[at] < '9') {
    ++digits_[at];
  } else {
    digits_[at] = '0';
    digits_[--begin_] = '1';
  }
}

KeyList::KeyList(const KeyList& other) : form_(other.form_), size_(other.size_), textSize_(other.textSize_) {
  if (other.strings_) strings_ = std::make_unique<std::vector<KTString>>(*other.strings_);
  if (!other.block_) return;
  block_.reset(new u32[other.words_]);
  words_ = other.words_;
  std::copy_n(other.block_.get(), words_, block_.get());
}

u64 KeyList::growthCost(std::string_view key) const {
  if (form_ == Form::indices && isNextIndex(key)) return 0;
  if (form_ == Form::packed && room() >= key.size() + sizeof(u32)) return 0;
  return grownWords(key.size()) * sizeof(u32) + amf::kBlockOverhead;
}

// Words for what there is and the key, and as much again.
u64 KeyList::grownWords(std::size_t keyLength) const {
  const u64 keys = std::max({size_, expected_, kFirstKeys});
  const u64 indices = form_ == Form::indices ? u64{size_} * kUsualKeyWords : 0;
  return std::max(u64{words_} * 2, keys * kUsualKeyWords) + indices + keyLength / sizeof(u32) + 2;
}

void KeyList::append(std::string_view key) {
  if (form_ == Form::indices) {
    if (isNextIndex(key)) return appendIndex();
    pack(key.size());
  }
  if (form_ == Form::packed && room() < key.size() + sizeof(u32)) grow(grownWords(key.size()));
  if (appendWithinRoom(key)) return;
  strings_->emplace_back(key.data(), static_cast<i64>(key.size()));
  ++size_;
}

void KeyList::appendIndex() {
  if (!appendIndexWithinRoom()) append(IndexText(size_).view());
}

bool KeyList::isNextIndex(std::string_view key) const {
  return !key.empty() && key[0] >= '0' && key[0] <= '9' && key == IndexText(size_).view();
}

void KeyList::grow(u64 words) {
  if (words > kMostWords) {
    strings();
    return;
  }
  std::unique_ptr<u32[]> wider(new u32[words]);
  if (textSize_) std::memcpy(wider.get(), block_.get(), textSize_);
  if (size_) std::copy_n(&endOf(size_ - 1), size_, wider.get() + words - size_);
  block_ = std::move(wider);
  words_ = static_cast<u32>(words);
}

// From indices to packed texts, with room for one more key of that length.
void KeyList::pack(std::size_t keyLength) {
  const u64 words = grownWords(keyLength);
  if (words > kMostWords) {
    strings();
    return;
  }
  block_.reset(new u32[words]);
  words_ = static_cast<u32>(words);
  form_ = Form::packed;
  IndexText index;
  for (u32 count = std::exchange(size_, 0); count > 0; --count, index.next()) put(index.view());
}

std::string_view KeyList::text(u32 index, IndexText& indexText) const {
  if (form_ == Form::packed) return packedText(index);
  if (form_ == Form::strings) return (*strings_)[index].view();
  indexText.set(index);
  return indexText.view();
}

std::string_view KeyList::packedText(u32 index) const {
  const u32 begin = index ? endOf(index - 1) : 0;
  return {texts() + begin, endOf(index) - begin};
}

std::vector<KTString>& KeyList::strings() const {
  if (form_ == Form::strings) return *strings_;
  auto made = std::make_unique<std::vector<KTString>>();
  made->reserve(size_);
  IndexText index;
  for (u32 i = 0; i < size_; ++i) {
    const std::string_view key = text(i, index);
    made->emplace_back(key.data(), static_cast<i64>(key.size()));
  }
  strings_ = std::move(made);
  form_ = Form::strings;
  block_.reset();
  words_ = 0;
  return *strings_;
}

}  // namespace orv
