// The message that this system makes: a tag with a payload block that can grow, and a link to a pool.

#pragma once

#include <atomic>

#include "server/Message.h"

class KTMessagePtr;

class KTMessage : public orv::SingleMessage {
 public:
  // With a pool, the message starts with a count of 1, which is the pool's own.
  KTMessage(u32 size, KTPoolSide<KTMessage>* owner);

  // For a pool: the same, with no block until `resetPayload`.
  explicit KTMessage(KTPoolSide<KTMessage>* owner) : pool(owner) { refCount_.increment(); }

  // Drops a count. A pooled message that only its pool still holds then drops its block and its attachments
  // and goes back there.
  i32 release() override;

  // Makes it an empty message with a fresh block for `size` bytes, whatever it carried before.
  void resetPayload(u32 size);

  void setTime(u32 time) { setHeaderTime(time); }  // Milliseconds.
  void setStreamId(u32 id) { orv::flv::writeU24(header.streamId, id); }
  // Sets the header's 24 bits; with `updateBlock` the block's own length too.
  void setLength(u32 length, bool updateBlock);

  // Return false, and leave the message as it was, if memory or the header's 24 bits don't suffice. The
  // block's bytes may move: nobody else may be reading them, through a shallow clone or a composite, and
  // `data` must not lie in them. Numbers are big-endian.

  // Resizes the block's capacity to what `length` bytes take, more or less than it has; what fits is kept.
  bool reserve(u32 length);
  bool resize(u32 length);
  bool append(const void* data, u32 count);
  bool appendU8(u8 value) { return append(&value, sizeof value); }
  bool appendU16(u16 value);
  bool appendU32(u32 value);
  bool appendU64(u64 value);

  // Returns a new message with the same header and type bit, and the same block or, if `deep`, a copy of it;
  // null if a block doesn't hold what the header claims.
  KTMessagePtr clone(bool deep) const;

  KTPoolSide<KTMessage>* const pool;  // May be null.
  u32 recycleCount = 0;

 private:
  bool copyPayload(const KTMessage& source);
};

// The pool that messages are taken from; null, as at the start, for the heap. Whoever installs a pool keeps
// it alive until the last of its messages is gone.
extern std::atomic<KTPoolSide<KTMessage>*> defaultMessagePool;

class KTMessagePtr : public KTPtr<KTMessage> {
 public:
  using KTPtr<KTMessage>::KTPtr;
  // Makes a new message of 256 bytes. A null pointer is made from nullptr.
  KTMessagePtr();
};
