#include "host/flv/FileFault.h"

#include <fmt/format.h>

#include <cstring>

#include "host/files/FileCheck.h"
#include "host/files/ReadOnlyFile.h"
#include "host/flv/FlvNames.h"

namespace orv::host {

namespace {

std::string printable(const std::vector<u8>& bytes) {
  std::string text;
  for (const u8 byte : bytes) {
    text += byte >= ' ' && byte <= '~' && byte != '"' ? std::string(1, static_cast<char>(byte))
                                                      : fmt::format("\\x{:02x}", byte);
  }
  return text;
}

std::string explainFirstTag(const ReadOnlyFile& file, u32 headerSize, i64 size) {
  if (headerSize < flv::kFileHeaderSize || headerSize > size) {
    return fmt::format("has a header that claims {} bytes, in a file of {}", headerSize, size);
  }
  const i64 position = i64{headerSize} + flv::kSizeFieldSize;
  const std::vector<u8> bytes = file.read(position, flv::kTagHeaderSize);
  if (bytes.size() < flv::kTagHeaderSize) return "ends inside its first tag";
  const flv::TagHeader tag{bytes.data()};
  if (!isKnownType(tag.typeByte())) {
    return fmt::format("has no valid first tag: type {} at byte {} is none of audio, video, data",
                       tag.typeByte(), position);
  }
  if (tag.dataSize() > size - position - flv::kTagOverhead) {
    return fmt::format("has a first tag of {} bytes at byte {} that doesn't fit the {} bytes of the file",
                       tag.dataSize(), position, size);
  }
  return fmt::format("has a first tag, of type {} at byte {}, that the module doesn't take", tag.typeByte(),
                     position);
}

}  // namespace

std::string explainHeader(const std::vector<u8>& head) {
  if (head.empty()) return "is empty (0 bytes)";
  if (std::memcmp(head.data(), kSignature.data(), std::min(head.size(), kSignature.size())) != 0) {
    return fmt::format(
        "isn't an FLV file: it starts with \"{}\"",
        printable({head.begin(), head.begin() + std::min<long>(4, static_cast<long>(head.size()))}));
  }
  if (head.size() > kVersionPosition && head[kVersionPosition] != kVersion) {
    return fmt::format("has FLV version {}; only version 1 can be played", head[kVersionPosition]);
  }
  if (head.size() < flv::kFileHeaderSize) {
    return fmt::format("ends inside its header, after {} bytes", head.size());
  }
  return {};
}

std::string explainRefusal(const std::string& name) {
  const i64 size = checkReadable(name).size;
  const ReadOnlyFile file(name);
  const std::vector<u8> head = file.read(0, flv::kFileHeaderSize);
  const std::string fault = explainHeader(head);
  if (!fault.empty()) return fault;
  return explainFirstTag(file, flv::readU32(head.data() + flv::kHeaderSizePosition), size);
}

std::string explainNothingPlayable(const std::string& name, i64 firstTag) {
  const i64 size = checkReadable(name).size;
  if (size <= firstTag) return "has a header and no tags";
  return fmt::format("has nothing playable: no whole tag is found in the {} bytes behind its header",
                     size - firstTag);
}

}  // namespace orv::host
