#include "server/AmfTables.h"

#include <algorithm>
#include <functional>

namespace orv::amf {

namespace {

constexpr u32 kLongTable = 64;
constexpr std::size_t kFirstPlaces = 8;

template <class Found, class Table>
i64 indexIn(const Table& table, Found found) {
  return found == table.end() ? -1 : found - table.begin();
}

}  // namespace

void ObjectTable::makePlace() {
  if (objects_.size() == objects_.capacity()) objects_.reserve(std::max(kFirstPlaces, 2 * objects_.size()));
}

void ObjectTable::cutTo(u32 size) {
  objects_.resize(size);
  if (size >= indexed_) return;
  index_.reset();
  indexed_ = 0;
}

i64 ObjectTable::find(const KTDataArray* array) {
  if (size() <= kLongTable) {
    const auto isArray = [array](const KTDataArrayPtr& object) { return object.get() == array; };
    return indexIn(objects_, std::find_if(objects_.begin(), objects_.end(), isArray));
  }
  if (!index_) index_ = std::make_unique<Index>();
  for (; indexed_ < size(); ++indexed_) index_->emplace(objects_[indexed_].get(), indexed_);
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
  return indexIn(strings_, std::find_if(strings_.begin(), strings_.end(), isText));
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
