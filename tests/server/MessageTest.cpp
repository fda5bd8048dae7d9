#include <gtest/gtest.h>

#include "ServerTest.h"
#include "server/compositemessage.h"
#include "support/FlvBuilder.h"
#include "support/HeapWatch.h"

namespace orv::test {
namespace {

TEST(Message, whatATagIs) {
  const struct {
    u8 type;
    const char* payload;
    bool key, nonPicture, disposable;
  } kRows[] = {
      {9, "12", true, false, false}, {9, "22", false, false, false}, {9, "32", false, false, true},
      {9, "52", false, true, false}, {9, "", false, false, false},   {8, "12", false, true, false},
  };
  for (const auto& row : kRows) {
    const KTMessagePtr owner = messageOf(row.type, bytesOf(row.payload));
    const KTMessage* const message = owner.get();
    EXPECT_EQ(message->isKeyFrame(), row.key) << int{row.type} << row.payload;
    EXPECT_EQ(message->isNonPicture(), row.nonPicture) << int{row.type} << row.payload;
    EXPECT_EQ(message->isDisposableFrame(), row.disposable) << int{row.type} << row.payload;
  }
  const KTMessagePtr message = messageOf(0x29, {});
  EXPECT_EQ(message->type(), 9);
  message->takeTypeBit();
  EXPECT_EQ(message->header.typeByte, 0x09);
  EXPECT_EQ(message->typeBit, 1);
  message->header.typeByte = 0xA9;
  message->setType(8);
  EXPECT_EQ(message->header.typeByte, 0xA8);
  MessageTypeCounts counts;
  counts.increment(9);
  EXPECT_EQ(counts.increment(0x49), 2U);  // Bit 0x40 makes no difference.
  EXPECT_EQ(counts.increment(24) + counts.count(255), 0U);
}

TEST(Message, locksAreSharedBy250) {
  const KTMessagePtr first;
  KTMessagePtr last(nullptr);
  for (int i = 0; i < 249; ++i) {
    last = KTMessagePtr();
    EXPECT_NE(last->lock, first->lock);
  }
  EXPECT_EQ(KTMessagePtr()->lock, first->lock);
}

TEST(KTMessage, payloadGrowsAndShrinks) {
  const HeapWatch heap;
  {
    const KTMessagePtr message;
    EXPECT_EQ(message->memory->capacity, 260U);
    EXPECT_EQ(message->getRefCount(), 1);
    message->setTime(0x12345678);  // The top 8 bits come last.
    message->setStreamId(0xABCDEF);
    EXPECT_TRUE(message->append("abc", 3));
    EXPECT_TRUE(message->appendU8(1) && message->appendU16(0x0203) && message->appendU32(0x04050607) &&
                message->appendU64(0x08090A0B0C0D0E0F));
    EXPECT_EQ(hexOf(message->headerBytes(), 11), "0000001234567812abcdef");
    EXPECT_EQ(hexOf(bytesIn(*message)), "6162630102030405060708090a0b0c0d0e0f");
    EXPECT_EQ(message->blockLength(), 18U);
    EXPECT_TRUE(message->reserve(8));
    EXPECT_EQ(message->memory->capacity, 12U);
    EXPECT_TRUE(message->reserve(7));
    EXPECT_EQ(message->memory->capacity, 8U);
    EXPECT_EQ(hexOf(message->payload(), 8), "6162630102030405");
    EXPECT_TRUE(message->resize(300));
    EXPECT_EQ(message->memory->capacity, 304U);
    EXPECT_FALSE(message->resize(0x1000000));
    EXPECT_FALSE(message->reserve(0xFFFFFFFF));
    EXPECT_EQ(message->length(), 300U);
    message->resetPayload(9);
    EXPECT_EQ(message->memory->capacity, 12U);
    EXPECT_EQ(hexOf(message->headerBytes(), 11), std::string(22, '0'));
  }
  EXPECT_EQ(heap->live, 0U);
}

TEST(KTMessage, clonesAndFailures) {
  const KTMessagePtr message = messageOf(0x29, {1, 2, 3});
  message->takeTypeBit();
  message->headerFlag = 7;
  const KTMessagePtr shallow = message->clone(false), deep = message->clone(true);
  EXPECT_EQ(shallow->memory.get(), message->memory.get());
  EXPECT_NE(deep->memory.get(), message->memory.get());
  for (const KTMessagePtr& copy : {shallow, deep}) {
    EXPECT_EQ(hexOf(copy->headerBytes(), 11), hexOf(message->headerBytes(), 11));
    EXPECT_EQ(copy->headerFlag, 7);
    EXPECT_EQ(copy->typeBit, 1);
    EXPECT_EQ(hexOf(bytesIn(*copy)), "010203");
    EXPECT_EQ(copy->blockLength(), 3U);
  }
  HeapWatch heap;
  heap.failAt(1);
  EXPECT_FALSE(message->resize(5000));
  EXPECT_EQ(hexOf(bytesIn(*message)), "010203");
  message->setLength(1000, false);
  EXPECT_FALSE(message->clone(true));
}

class RecordingPool : public KTPoolSide<KTMessage> {
 public:
  KTMessage* acquire(u32 size) override { return new KTMessage(size, this); }
  void recycle(KTMessage* message) override { recycled = message; }
  KTMessage* recycled = nullptr;
};

TEST(KTMessage, goesBackToItsPoolEmpty) {
  RecordingPool pool;
  defaultMessagePool = &pool;
  KTMessagePtr message;
  defaultMessagePool = nullptr;
  EXPECT_EQ(message->getRefCount(), 2);
  message->headerFlag = 1;
  message->firstAttachment = KTObjectPtr(new KTMessage(0, nullptr));
  KTMessage* const raw = message.get();
  message = KTMessagePtr(nullptr);
  ASSERT_EQ(pool.recycled, raw);
  EXPECT_FALSE(raw->memory);
  EXPECT_FALSE(raw->firstAttachment);
  EXPECT_EQ(raw->headerFlag, 0);
  EXPECT_EQ(raw->recycleCount, 1U);
  EXPECT_EQ(raw->release(), 0);
}

// The tags of an FLV file as an aggregate's payload.
Bytes payloadOf(const FlvBuilder& film) {
  return {film.bytes().begin() + flv::kFirstTagPosition, film.bytes().end()};
}

FlvBuilder mixedFilm() {
  FlvBuilder film;
  film.tag(0x29, 40, bytesOf("12 01 02")).tag(8, 40, bytesOf("2F")).tag(8, 0x01000010, Bytes());
  return film.tag(18, 60, bytesOf("05")).tag(15, 60, bytesOf("00 05")).interleaved(40, 100);
}

CompositeMessagePtr opened(const FlvBuilder& film) {
  return CompositeMessage::fromMessage(*messageOf(flv::kTypeAggregate, payloadOf(film)));
}

// The entries' tags, with their trailing fields, as they came.
Bytes tagsIn(const CompositeMessage& composite) {
  FlvBuilder film;
  for (const auto& entry : composite) {
    const u8 filter = entry->typeBit ? flv::kFilterBit : 0;
    film.tag(static_cast<u8>(entry->header.typeByte | filter), entry->time(), bytesIn(*entry));
  }
  return payloadOf(film);
}

// What any composite, whole or part, says of its entries.
void checkSound(const CompositeMessage& composite) {
  EXPECT_EQ(bytesIn(composite), tagsIn(composite));
  EXPECT_EQ(composite.time(), (*composite.begin())->time());
  EXPECT_EQ(composite.blockLength(), composite.length());
}

TEST(CompositeMessage, opensAnAggregateWithoutCopying) {
  const FlvBuilder film = mixedFilm();
  const KTMessagePtr message = messageOf(flv::kTypeAggregate, payloadOf(film));
  const CompositeMessagePtr composite(CompositeMessage::fromMessage(*message));
  checkSound(*composite);
  EXPECT_EQ(composite->payload(), message->payload());
  EXPECT_EQ(composite->type(), flv::kTypeAggregate);
  EXPECT_EQ(composite->length(), message->length());
  EXPECT_EQ(composite->lastTime(), film.lastTime());
  EXPECT_EQ((*composite->begin())->typeBit, 1);
  EXPECT_EQ(composite->dataKinds(), 3);
  EXPECT_EQ(composite->videoCodecs(), 4);       // Codec 2.
  EXPECT_EQ(composite->audioFormats() & 5, 5);  // Formats 2 and, for the empty tag, 0.
  EXPECT_FALSE(composite->isNonPicture() || composite->isKeyFrame() || composite->isDisposableFrame());
  MessageTypeCounts counts;
  composite->countTypes(counts);
  EXPECT_EQ(counts.count(8) + counts.count(9) + counts.count(15) + counts.count(18), film.tags().size());
  ASSERT_EQ(composite->entryCount(), film.tags().size());
  u32 index = 0;
  for (const auto& entry : *composite) {
    EXPECT_EQ(entry->index, index);
    EXPECT_EQ(entry->offset + flv::kFirstTagPosition, film.tags()[index++].position);
    EXPECT_EQ(entry->payload(), message->payload() + entry->offset + flv::kTagHeaderSize);
  }
  EXPECT_TRUE(opened(FlvBuilder().tag(8, 5, bytesOf("2F")))->isNonPicture());
  EXPECT_FALSE(opened(FlvBuilder().tag(18, 5, bytesOf("05")))->isNonPicture());
  EXPECT_EQ(opened(FlvBuilder())->lastTime(), 0xFFFFFFFFU);
}

// The two parts of a split hold the whole between them, whichever piece is split again.
void checkParts(const CompositeMessagePtr& whole, const CompositeMessagePtr& first,
                const CompositeMessagePtr& second) {
  if (!first || !second) {
    EXPECT_EQ((first ? first : second).get(), whole.get());
    return;
  }
  Bytes joined = bytesIn(*first);
  for (const u8 byte : bytesIn(*second)) joined.push_back(byte);
  EXPECT_EQ(joined, bytesIn(*whole));
  checkSound(*first);
  checkSound(*second);
  EXPECT_EQ(CompositeMessagePtr(first->followingPart())->payload(), second->payload());
  EXPECT_EQ(tagsIn(*CompositeMessagePtr(second->precedingPart())), tagsIn(*first));
}

TEST(CompositeMessage, splitsAtEveryIndexAndEveryTime) {
  const FlvBuilder film = mixedFilm();
  const CompositeMessagePtr whole = opened(film);
  CompositeMessagePtr first, second, inner, outer;
  for (u32 index = 0; index <= whole->entryCount() + 1; ++index) {
    whole->splitAtIndex(index, first, second);
    EXPECT_EQ(first ? first->entryCount() : 0, std::min(index, whole->entryCount()));
    checkParts(whole, first, second);
    if (!second) continue;
    second->splitAtIndex(second->entryCount() / 2, inner, outer);
    checkParts(second, inner, outer);
    EXPECT_EQ(outer->followingPart(), nullptr);
    if (inner && index > 0) {
      EXPECT_EQ(CompositeMessagePtr(inner->precedingPart())->entryCount(), index);
    }
  }
  for (u32 time = 30; time <= film.lastTime() + 1; ++time) {
    whole->splitAtTime(time, first, second);
    checkParts(whole, first, second);
    EXPECT_TRUE(!first || first->lastTime() < time);
    EXPECT_TRUE(!second || second->time() >= time);
  }
  EXPECT_EQ(whole->followingPart(), nullptr);
  EXPECT_EQ(whole->precedingPart(), nullptr);
}

TEST(CompositeMessage, livesAsLongAsAnEntryOrAView) {
  const HeapWatch heap;
  {
    CompositeMessagePtr whole = opened(mixedFilm());
    const SingleMessagePtr entry(whole->begin()->get());
    EXPECT_EQ(whole->getRefCount(), 2);
    CompositeMessagePtr other;
    whole->splitAtIndex(3, other, whole);  // The whole is given away; its second part keeps it.
    whole = nullptr;
    other = nullptr;
    EXPECT_EQ(hexOf(bytesIn(*entry)), "120102");
    CompositeMessagePtr same = opened(mixedFilm());
    same->splitAtIndex(0, same, other);  // Its last owner is the part that becomes null.
    EXPECT_EQ(other->getRefCount(), 1);
    static const char* freedAt;  // Where the stack stood as the root went.
    CompositeMessagePtr view = opened(FlvBuilder().interleaved(2'000));
    view->begin()->get()->memory->freeFunction = [](u8*) {
      freedAt = static_cast<const char*>(__builtin_frame_address(0));
    };
    while (view) view->splitAtIndex(1, other, view);  // A chain of 2,000 parents.
    other = nullptr;                                  // They go one after the other.
    EXPECT_LT(static_cast<const char*>(__builtin_frame_address(0)) - freedAt, 4096);
    opened(mixedFilm())->begin()->get()->memory->reserve(10'000);  // The block is then its own.
  }
  EXPECT_EQ(heap->live, 0U);
}

// Cut or with a size that lies, an aggregate gives the entries in front of the fault.
TEST(CompositeMessage, brokenAggregatesGiveWhatIsWhole) {
  const FlvBuilder film =
      FlvBuilder().tag(9, 1, bytesOf("12 34")).tag(8, 2, bytesOf("2F")).tag(9, 3, Bytes());
  Bytes bytes = payloadOf(film);
  for (u32 size = 0; size <= bytes.size(); ++size) {
    const KTMemoryPtr block(size, nullptr);  // Of just that size, for the sanitizer to see.
    std::copy_n(bytes.begin(), size, block->data);
    const CompositeMessagePtr composite(new CompositeMessage(block, size + 100));
    u32 whole = 0;
    for (const BuiltTag& tag : film.tags()) {
      const i64 start = tag.position - flv::kFirstTagPosition;
      whole += size >= start + std::max(12U, tag.size + 11);
    }
    EXPECT_EQ(composite->entryCount(), whole) << size;
    EXPECT_EQ(composite->blockLength(), size);
  }
  bytes[1] = 0xFF;
  const KTMessagePtr lying = messageOf(flv::kTypeAggregate, bytes);
  EXPECT_EQ(CompositeMessagePtr(CompositeMessage::fromMessage(*lying))->entryCount(), 0U);
  EXPECT_EQ(CompositeMessagePtr(new CompositeMessage(nullptr, 5))->entryCount(), 0U);
}

}  // namespace
}  // namespace orv::test
