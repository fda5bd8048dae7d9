#include "util/KTStringPool.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "platform/Numbers.h"
#include "util/KTStringShelf.h"
#include "util/KTThrowable.h"

namespace {

using orv::util::hidden::newTextBlock;
using orv::util::hidden::setTextHeader;

constexpr u32 kCapacityStep = 32;

// Characters for which a private block of this length has room, its NUL included.
u32 capacityFor(i32 length) {
  return ((static_cast<u32>(length) + 1) / kCapacityStep + 1) * kCapacityStep;
}

i32 checkedLength(i64 length) {
  if (length > KTStringPool::kMaxLength) throw KTOutOfMemory();
  return static_cast<i32>(length);
}

template <class Char>
i32 measure(const Char* text, i64 length) {
  if (!text) return 0;
  if (length >= 0) return checkedLength(length);
  const std::size_t measured = std::char_traits<Char>::length(text);
  return checkedLength(measured > KTStringPool::kMaxLength ? i64{KTStringPool::kMaxLength} + 1
                                                           : static_cast<i64>(measured));
}

template <class Char>
Char* newPrivate(i32 length) {
  return newTextBlock<Char>(capacityFor(length), length, KTStringPool::kPrivate);
}

// The two may overlap: a text may be appended to itself with its NUL.
template <class Char>
void copyText(Char* to, const Char* from, i32 length) {
  if (length) std::char_traits<Char>::move(to, from, static_cast<std::size_t>(length));
}

template <class Char>
void setLength(Char* block, i32 length) {
  setTextHeader(block, length, KTStringPool::kPrivate);
  block[length] = 0;
}

// The block was made with the capacity of its longest text so far, which is never less than that of `length`.
template <class Char>
bool hasRoom(const Char* block, i32 length) {
  return KTStringPool::kind(block) == KTStringPool::kPrivate &&
         capacityFor(length) <= capacityFor(KTStringPool::length(block));
}

// As atoi reads it; texts longer than a header can hold don't exist.
i32 limitFromEnvironment() {
  const char* const value = std::getenv("ORV_STRING_POOL");
  if (!value) return 0;
  return std::clamp(orv::platform::parseInt32(value), 0, KTStringPool::kMaxLength);
}

}  // namespace

// Built in place and never destroyed: static strings may outlive any order of destruction.
KTStringPool& KTStringPool::instance() {
  alignas(KTStringPool) static u8 place[sizeof(KTStringPool)];
  static KTStringPool* const pool = new (place) KTStringPool();
  return *pool;
}

KTStringPool::KTStringPool() : poolLimit_(limitFromEnvironment()) {
  if (poolLimit_ == 0) return;
  auto narrow = std::make_unique<KTStringShelf<char>>(poolLimit_);
  wide_ = new KTStringShelf<char16_t>(poolLimit_);
  narrow_ = narrow.release();
}

template <class Char>
KTStringShelf<Char>* KTStringPool::shelfFor(i32 length) {
  if (length <= 0 || length > poolLimit_) return nullptr;
  if constexpr (sizeof(Char) == sizeof(char)) {
    return narrow_;
  } else {
    return wide_;
  }
}

template <class Char>
Char* KTStringPool::create(const Char* text, i64 length) {
  const i32 count = measure(text, length);
  if (count == 0) return empty<Char>();
  if (auto* const shelf = instance().shelfFor<Char>(count))
    return shelf->take({text, static_cast<std::size_t>(count)});
  Char* const block = newPrivate<Char>(count);
  copyText(block, text, count);
  return block;
}

template <class Char>
void KTStringPool::release(Char* block) {
  switch (kind(block)) {
    case kPrivate:
      return orv::util::hidden::deleteTextBlock(block);
    case kPooled:
      if (auto* const shelf = instance().shelfFor<Char>(length(block))) shelf->drop(block);
      return;
    case kEmpty:
      return;
  }
}

template <class Char>
Char* KTStringPool::assign(Char* block, const Char* text, i64 length) {
  const i32 count = measure(text, length);
  if (count > 0 && hasRoom(block, count)) {
    std::char_traits<Char>::move(block, text, static_cast<std::size_t>(count));
    setLength(block, count);
    return block;
  }
  Char* const fresh = create(text, count);
  release(block);
  return fresh;
}

template <class Char>
Char* KTStringPool::append(Char* block, const Char* text, i64 length) {
  const i32 added = measure(text, length);
  if (added == 0) return block;
  const i32 old = KTStringPool::length(block);
  const i32 sum = checkedLength(i64{old} + added);
  if (hasRoom(block, sum)) {
    copyText(block + old, text, added);
    setLength(block, sum);
    return block;
  }
  Char* const result = newPrivate<Char>(sum);
  copyText(result, block, old);
  copyText(result + old, text, added);
  release(block);
  return result;
}

template <class Char>
Char* KTStringPool::makePrivate(Char* block) {
  if (kind(block) == kPrivate) return block;
  const i32 count = length(block);
  Char* const own = newPrivate<Char>(count);
  copyText(own, block, count);
  release(block);
  return own;
}

template <class Char>
Char* KTStringPool::truncate(Char* block, i32 length) {
  if (length > 0) {
    setLength(block, length);
    return block;
  }
  release(block);
  return empty<Char>();
}

template <class Char>
Char* KTStringPool::join(std::basic_string_view<Char> first, std::basic_string_view<Char> second) {
  const i32 length = checkedLength(static_cast<i64>(first.size() + second.size()));
  if (length == 0) return empty<Char>();
  Char* const block = newPrivate<Char>(length);
  copyText(block, first.data(), static_cast<i32>(first.size()));
  copyText(block + first.size(), second.data(), static_cast<i32>(second.size()));
  return block;
}

i64 KTStringPool::sweep() {
  i64 freed = 0;
  if (sweeping_.increment() == 1 && narrow_ && wide_) freed = narrow_->sweep() + wide_->sweep();
  sweeping_.decrement();
  return freed;
}

template <class Char>
KTStringPoolCounts KTStringPool::counts(i32 length) {
  auto* const shelf = shelfFor<Char>(length);
  return shelf ? shelf->counts(length) : KTStringPoolCounts{};
}

// Only two widths of text exist.
template char* KTStringPool::create(const char*, i64);
template void KTStringPool::release(char*);
template char* KTStringPool::assign(char*, const char*, i64);
template char* KTStringPool::append(char*, const char*, i64);
template char* KTStringPool::makePrivate(char*);
template char* KTStringPool::truncate(char*, i32);
template char* KTStringPool::join(std::basic_string_view<char>, std::basic_string_view<char>);
template KTStringPoolCounts KTStringPool::counts<char>(i32);
template char16_t* KTStringPool::create(const char16_t*, i64);
template void KTStringPool::release(char16_t*);
template char16_t* KTStringPool::assign(char16_t*, const char16_t*, i64);
template char16_t* KTStringPool::append(char16_t*, const char16_t*, i64);
template char16_t* KTStringPool::makePrivate(char16_t*);
template char16_t* KTStringPool::truncate(char16_t*, i32);
template char16_t* KTStringPool::join(std::basic_string_view<char16_t>, std::basic_string_view<char16_t>);
template KTStringPoolCounts KTStringPool::counts<char16_t>(i32);
