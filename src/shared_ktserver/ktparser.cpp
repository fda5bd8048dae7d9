#include "shared_ktserver/ktparser.h"

#include <algorithm>
#include <limits>
#include <new>

#include "util/KTThrowable.h"

namespace {

constexpr u32 kLongestBuffer = std::numeric_limits<i32>::max();
constexpr u64 kFirstCapacity = 256;
constexpr u64 kLinearGrowth = 65536;  // Above this capacity the buffer grows by it, below it doubles.
constexpr u64 kSpare = 1024;          // Behind a single write that outgrows either step.

u64 nextCapacity(u64 capacity, u64 needed) {
  const u64 next =
      std::max(capacity > kLinearGrowth ? capacity + kLinearGrowth : 2 * capacity, kFirstCapacity);
  return next < needed ? needed + kSpare : next;
}

// Most messages fit the smallest block, and a long one is moved only a few times.
u64 blockFor(u64 capacity) {
  for (const u64 block : {u64{1} << 10, u64{1} << 13, u64{1} << 16}) {
    if (capacity <= block) return block;
  }
  return std::min<u64>(2 * capacity, kLongestBuffer);
}

}  // namespace

KTParser::KTParser(const u8* data, u32 length, bool throwOnError)
    : writing_(false),
      throwOnError_(throwOnError),
      buffer_(data),
      limit_(static_cast<i32>(data ? std::min(length, kLongestBuffer) : 0)) {}

void KTParser::fail() {
  if (throwOnError_) throw KTBreakConnection();
  giveUp();
}

std::unique_ptr<char[]> KTParser::readString(TextKind kind) {
  const std::string_view text = viewString(kind);
  auto copy = std::make_unique<char[]>(text.size() + 1);
  text.copy(copy.get(), text.size());
  return copy;
}

std::unique_ptr<u8[]> KTParser::copyBytes(u32 length) {
  const u8* const bytes = take(length);
  if (!bytes) return nullptr;
  std::unique_ptr<u8[]> copy(new u8[length]);
  if (length) std::memcpy(copy.get(), bytes, length);
  return copy;
}

void KTParser::grow(u32 count) {
  const u64 needed = static_cast<u64>(position_) + count;
  const u64 capacity = nextCapacity(static_cast<u64>(limit_), needed);
  if (capacity > kLongestBuffer) throw KTOutOfMemory();
  if (capacity > ownedSize_) reallocate(blockFor(capacity));
  limit_ = static_cast<i32>(capacity);
}

void KTParser::reallocate(u64 capacity) {
  std::unique_ptr<u8[]> wider(new (std::nothrow) u8[capacity]);
  if (!wider) throw KTOutOfMemory();
  if (position_) std::memcpy(wider.get(), buffer_, static_cast<u32>(position_));
  owned_ = std::move(wider);
  ownedSize_ = capacity;
  buffer_ = owned_.get();
}

const u8* KTParser::refuseRead() {
  fail();
  return nullptr;
}

u8* KTParser::refuseWrite() {
  KT_ASSERT(writing_);
  return nullptr;
}

void KTParser::writeBytes(const void* data, u32 length) {
  u8* const bytes = room(length);
  if (bytes && length) std::memcpy(bytes, data, length);
}

void KTParser::writeString(std::string_view text, TextKind kind) {
  u32 length = static_cast<u32>(text.size());
  if (kind == kShortText) {
    KT_ASSERT(length <= kMaxShortText);
    length = std::min(length, kMaxShortText);
    writeU16(static_cast<u16>(length));
  } else {
    writeU32(length);
  }
  writeBytes(text.data(), length);
}
