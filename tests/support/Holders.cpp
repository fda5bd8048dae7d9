#include "support/Holders.h"

#include <stdexcept>

#include "server/FLVTag.h"

namespace orv::test {

std::vector<Message> unpack(const std::vector<Message>& messages) {
  std::vector<Message> tags;
  for (const Message& message : messages) {
    if (message.type != flv::kTypeAggregate) {
      tags.push_back(message);
      continue;
    }
    for (std::size_t at = 0; at < message.data.size();) {
      const std::size_t left = message.data.size() - at;
      if (left < flv::kTagOverhead) throw std::runtime_error("aggregate stops inside an entry's header");
      const u8* const entry = &message.data[at];
      const flv::TagHeader header{entry};
      if (left - flv::kTagOverhead < header.dataSize())
        throw std::runtime_error("entry longer than its aggregate");
      const u8* const data = entry + flv::kTagHeaderSize;
      tags.push_back({header.typeByte(), header.time(), Bytes(data, data + header.dataSize())});
      at += flv::kTagOverhead + header.dataSize();
    }
  }
  return tags;
}

}  // namespace orv::test
