// An aggregate message (type 22) opened into its entries, and split, without a copy of a payload byte.
//
// An aggregate's payload is a run of whole FLV tags, each with its trailing size field and its absolute time.
// A root composite owns one SubMessage for each; a view stands for a part of its parent's entries and keeps
// the parent alive. A composite's fields are set when it is made and not written afterwards.
//
// What breaks the format ends the run: an entry with fewer than 12 bytes left, or whose data reaches past the
// end of the payload, is left out with all that would follow. An entry of which only the trailing field is
// cut counts: nobody reads that field. A composite may so have no entry at all; its time is then 0.

#pragma once

#include <memory>
#include <vector>

#include "server/Message.h"

namespace orv {

class CompositeMessage;

class CompositeMessagePtr : public KTPtr<CompositeMessage> {
 public:
  using KTPtr<CompositeMessage>::KTPtr;
};

// One entry. Counting it counts its root: whoever holds an entry keeps the whole aggregate alive.
class SubMessage : public SingleMessage {
 public:
  // `headerBytes` are the 11 bytes of a tag header, which are copied.
  SubMessage(CompositeMessage* root, u32 place, u32 start, const u8* headerBytes, const KTMemoryPtr& payload);

  i32 addRef() override;
  i32 release() override;

  CompositeMessage* const parent;
  const u32 offset;  // Of the entry in the root's payload, in bytes.
  const u32 index;   // From 0.
};

class CompositeMessage : public Message {
 public:
  // A part of another block, as a block; it owns no bytes unless it is grown. Of a part of a part, only the
  // block underneath is kept.
  class PartialMemory : public KTMemory {
   public:
    PartialMemory(const KTMemoryPtr& source, u32 offset, u32 size);

   private:
    static KTMemoryPtr blockUnder(const KTMemoryPtr& source);

    const KTMemoryPtr source_;
  };

  // The same, from the first byte itself.
  class ProxyMemory : public KTMemory {
   public:
    ProxyMemory(const KTMemoryPtr& source, u8* first, u32 size);

   private:
    const KTMemoryPtr source_;
  };

  using Entries = std::vector<std::unique_ptr<SubMessage>>;
  using Iterator = Entries::const_iterator;

  // A root over the first `size` bytes of the block, or as many as it has; the block's `length` becomes that.
  CompositeMessage(const KTMemoryPtr& block, u32 size);
  // Lets go of a chain of parents without calling itself, however often views were split again.
  ~CompositeMessage() override;

  // Returns a root on the block of a message of type 22, of the block's `length`: a new object that has no
  // owner yet.
  static CompositeMessage* fromMessage(const Message& message);

  u32 lastTime() const override;
  bool isKeyFrame() const override { return false; }
  // Sound and no picture at all.
  bool isNonPicture() const override { return audioFormats_ != 0 && videoCodecs_ == 0; }
  bool isDisposableFrame() const override { return false; }
  void countTypes(MessageTypeCounts& counts) const override { counts.add(typeCounts_); }

  // Split before the first entry with a time of at least `time`, or before the entry at `index`. If one part
  // would be the whole message, that part is this message itself, and the other is null.
  void splitAtTime(u32 time, CompositeMessagePtr& firstPart, CompositeMessagePtr& secondPart);
  void splitAtIndex(u32 index, CompositeMessagePtr& firstPart, CompositeMessagePtr& secondPart);

  // Return the piece of the parent, or of the parents above it, that lies next to this view: a new object
  // that has no owner yet; null if there is none.
  CompositeMessage* followingPart();
  CompositeMessage* precedingPart();

  // Return the entries that this message stands for; those of a view run over the root's.
  Iterator begin() const { return firstEntry_; }
  Iterator end() const { return endEntry_; }
  u32 entryCount() const { return entryCount_; }

  u16 audioFormats() const { return audioFormats_; }  // Bit f: an entry of sound format f.
  u16 videoCodecs() const { return videoCodecs_; }    // Bit c: an entry of video codec c.
  u8 dataKinds() const { return dataKinds_; }         // Bit 0: AMF0 data. Bit 1: AMF3 data.
  const MessageTypeCounts& typeCounts() const { return typeCounts_; }

 private:
  CompositeMessage(CompositeMessage* whole, const KTMemoryPtr& block, Iterator first, Iterator last);

  void parse(u32 size);
  u32 appendEntry(u32 offset, u32 size);
  void setAggregateHeader(u32 length);
  void sumUp();
  void noteContent(const SubMessage& entry);
  void splitAt(Iterator entry, CompositeMessagePtr& firstPart, CompositeMessagePtr& secondPart);
  CompositeMessage* before(Iterator entry);
  CompositeMessage* from(Iterator entry);
  u32 offsetOf(Iterator entry) const;

  u16 audioFormats_ = 0;
  u16 videoCodecs_ = 0;
  u8 dataKinds_ = 0;
  CompositeMessagePtr parent_;  // Null for a root.
  Entries entries_;             // A root's own; empty in a view.
  Iterator firstEntry_;
  Iterator endEntry_;
  u32 entryCount_ = 0;
  MessageTypeCounts typeCounts_;
};

}  // namespace orv
