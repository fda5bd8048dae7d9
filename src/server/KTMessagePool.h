// What a pool must know of messages.

#pragma once

#include "server/KTMessage.h"
#include "util/KTPool.h"

template <>
struct KTPoolTraits<KTMessage> {
  static constexpr u32 kHitOverhead = 72;  // A number of the counters' rules, whatever a message measures.

  static KTMessage* make(KTPoolSide<KTMessage>* pool) { return new KTMessage(pool); }
  // One that came back has dropped its block; one that was made ahead still has it.
  static u64 cost(const KTMessage& message) {
    return u64{message.memory ? message.memory->capacity : 0} + sizeof(KTMessage);
  }
  static void prepare(KTMessage& message, u32 size) { message.resetPayload(size); }
};
