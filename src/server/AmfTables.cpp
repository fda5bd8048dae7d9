#include "server/AmfTables.h"

#include <algorithm>
#include <functional>

namespace orv::amf {

namespace {

constexpr u32 kLongTable = 64;
constexpr std::size_t kFirstPlaces = 8;

}  // namespace

void ObjectTable::makePlace() {
  if (size_ < kFew || more_.size() < more_.capacity()) return;
  more_.reserve(std::max(kFirstPlaces, 2 * more_.size()));
}

void ObjectTable::add(KTDataArray* array) {
  if (size_ < kFew)
    few_[size_] = array;
  else
    more_.push_back(array);
  ++size_;
  if (array) array->addRef();
}

void ObjectTable::cutTo(u32 size) {
  while (size_ > size) {
    KTDataArray* const array = (*this)[--size_];
    if (size_ >= kFew) more_.pop_back();
    if (array) array->release();
  }
  if (size >= indexed_) return;
  index_.reset();
  indexed_ = 0;
}

i64 ObjectTable::find(const KTDataArray* array) {
  if (size_ <= kLongTable) {
    for (u32 i = 0; i < size_; ++i) {
      if ((*this)[i] == array) return i;
    }
    return -1;
  }
  if (!index_) index_ = std::make_unique<Index>();
  for (; indexed_ < size_; ++indexed_) index_->emplace((*this)[indexed_], indexed_);
  const auto found = index_->find(array);
  return found == index_->end() ? -1 : i64{found->second};
}

void StringTable::cutTo(u32 size) {
  strings_.resize(size);
  if (size >= indexed_) return;
  index_.reset();
  indexed_ = 0;
}

i64 StringTable::find(std::string_view text, const u8* bytes) {
  if (size() > kLongTable) return findIndexed(text, bytes);
  const auto isText = [text, bytes](Span known) { return known.in(bytes) == text; };
  const auto found = std::find_if(strings_.begin(), strings_.end(), isText);
  return found == strings_.end() ? -1 : found - strings_.begin();
}

i64 StringTable::findIndexed(std::string_view text, const u8* bytes) {
  const std::hash<std::string_view> hash;
  if (!index_) index_ = std::make_unique<Index>();
  for (; indexed_ < size(); ++indexed_) index_->emplace(hash(strings_[indexed_].in(bytes)), indexed_);
  const auto [first, last] = index_->equal_range(hash(text));
  for (auto candidate = first; candidate != last; ++candidate) {
    if (strings_[candidate->second].in(bytes) == text) return candidate->second;
  }
  return -1;
}

}  // namespace orv::amf
