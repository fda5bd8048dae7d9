#include "host/flv/WholeTags.h"

#include "host/flv/FlvNames.h"
#include "server/FLVTag.h"

namespace orv::host {

WholeTags followTags(const ReadOnlyFile& file, i64 position, i64 size) {
  WholeTags found{0, position};
  std::vector<u8> header = file.read(position, flv::kTagHeaderSize);
  while (header.size() == flv::kTagHeaderSize) {
    const flv::TagHeader tag{header.data()};
    const u32 behind = tag.dataSize() + flv::kTagHeaderSize;
    if (!isKnownType(tag.typeByte()) || found.end + behind + flv::kSizeFieldSize > size) break;
    // The size field, and the next tag's header with it.
    header = file.read(found.end + behind, flv::kTagOverhead);
    if (header.size() < flv::kSizeFieldSize || flv::readU32(header.data()) != behind) break;
    header.erase(header.begin(), header.begin() + flv::kSizeFieldSize);
    found.end += behind + flv::kSizeFieldSize;
    ++found.count;
  }
  return found;
}

}  // namespace orv::host
