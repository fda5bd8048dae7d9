// Aggregates of foreign bytes: opened, and split at an index and at a time.
//
// Input: an index in 2 bytes, a time in 4, then the payload.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "server/compositemessage.h"
#include "support/HeapWatch.h"

namespace orv::test {
namespace {

constexpr std::size_t kHead = 6;
constexpr int kMostViews = 16;  // Inside one another.

#define HOLDS(condition) \
  if (!(condition)) std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::abort()

// Reads every byte that a message shows; the sanitizer sees any outside the block.
u32 readAll(const Message& message) {
  u32 sum = message.type() + message.time() + message.streamId();
  for (u32 i = 0; i < message.payloadSize(); ++i) sum += message.payload()[i];
  return sum;
}

void checkEntries(CompositeMessage& composite) {
  u32 count = 0, end = 0;
  MessageTypeCounts counts;
  for (const auto& entry : composite) {
    readAll(*entry);
    HOLDS(entry->payloadSize() == entry->length());
    HOLDS(count == 0 || entry->offset == end);
    end = entry->offset + entry->length() + flv::kTagOverhead;
    entry->countTypes(counts);
    ++count;
  }
  HOLDS(count == composite.entryCount());
  for (u8 type = 0; type < MessageTypeCounts::kTypes; ++type) {
    HOLDS(counts.count(type) == composite.typeCounts().count(type));
  }
  readAll(composite);
  HOLDS(count == 0 || composite.time() == (*composite.begin())->time());
}

void checkParts(CompositeMessage& whole, const CompositeMessagePtr& first,
                const CompositeMessagePtr& second) {
  HOLDS((first ? first->entryCount() : 0) + (second ? second->entryCount() : 0) == whole.entryCount());
  if (first) checkEntries(*first);
  if (second) checkEntries(*second);
  if (!first || !second) return;
  HOLDS(CompositeMessagePtr(first->followingPart())->entryCount() >= second->entryCount());
  HOLDS(CompositeMessagePtr(second->precedingPart())->entryCount() >= first->entryCount());
}

void check(u32 index, u32 time, const u8* data, u32 size) {
  const KTMemoryPtr block(size, nullptr);
  std::copy_n(data, size, block->data);
  CompositeMessagePtr composite(new CompositeMessage(block, size));
  checkEntries(*composite);
  CompositeMessagePtr first, second;
  for (int depth = 0; composite && depth < kMostViews; ++depth) {
    composite->splitAtTime(time, first, second);
    checkParts(*composite, first, second);
    composite->splitAtIndex(index, first, second);
    checkParts(*composite, first, second);
    const bool went = second.get() != composite.get();
    composite = went ? second : CompositeMessagePtr();
  }
}

}  // namespace
}  // namespace orv::test

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace orv;
  if (size < test::kHead) return 0;
  const test::HeapWatch heap;
  test::check(flv::readU24(data) >> 8, flv::readU32(data + 2), data + test::kHead,
              static_cast<u32>(size - test::kHead));
  if (heap->live != 0) std::abort();
  return 0;
}
