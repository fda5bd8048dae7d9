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
    return fmt::format("its header claims {} bytes, in a file of {} bytes", headerSize, size);
  }
  const i64 position = i64{headerSize} + flv::kSizeFieldSize;
  const std::vector<u8> bytes = file.read(position, flv::kTagHeaderSize);
  if (bytes.size() < flv::kTagHeaderSize) return "ends inside its first tag";
  const flv::TagHeader tag{bytes.data()};
  if (!isKnownType(tag.typeByte())) {
    return fmt::format("its first tag, at byte {}, is of type {}, which is none of audio, video, data",
                       position, tag.typeByte());
  }
  if (tag.dataSize() > size - position - flv::kTagOverhead) {
    return fmt::format("its first tag, at byte {}, claims {} bytes, in a file of {} bytes", position,
                       tag.dataSize(), size);
  }
  return fmt::format("its first tag, at byte {}, is of type {}, which the module refuses", position,
                     tag.typeByte());
}

}  // namespace

std::string explainHeader(const std::vector<u8>& head) {
  if (head.empty()) return "is empty";
  if (std::memcmp(head.data(), kSignature.data(), std::min(head.size(), kSignature.size())) != 0) {
    return fmt::format(
        "is not an FLV file: it starts with \"{}\"",
        printable({head.begin(), head.begin() + std::min<long>(4, static_cast<long>(head.size()))}));
  }
  if (head.size() > kVersionPosition && head[kVersionPosition] != kVersion) {
    return fmt::format("is of FLV version {}; only version 1 can be played", head[kVersionPosition]);
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
  if (size <= firstTag) return "holds a header and no tags";
  return fmt::format("holds nothing playable: no whole tag in the {} bytes behind its header",
                     size - firstTag);
}

}  // namespace orv::host
