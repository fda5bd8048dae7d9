#include "support/FlvBuilder.h"

#include <algorithm>

namespace orv::test {
namespace {

constexpr u32 kStepMs = 20;
constexpr u32 kMostPadding = 0x100000;

Bytes fileHeader(u32 headerSize, u8 flags) {
  Bytes out{'F', 'L', 'V', 1, flags, 0, 0, 0, 0};
  flv::writeU32(&out[flv::kHeaderSizePosition], headerSize);
  const u64 firstTag = u64{headerSize} + flv::kSizeFieldSize;
  out.resize(std::clamp<u64>(firstTag, flv::kFirstTagPosition, kMostPadding));
  return out;
}

}  // namespace

Bytes payload(u8 type, u32 size, u32 seed) {
  Bytes out(size);
  u32 state = seed * 2654435761u + 1;
  for (u8& byte : out) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<u8>(state >> 24);
  }
  if (size > 0) out[0] = type == flv::kTypeVideo ? 0x12 : 0x2F;  // an H.263 key frame, MP3
  return out;
}

Bytes tagBytes(u8 type, u32 time, const Bytes& data) {
  const u32 size = static_cast<u32>(data.size());
  Bytes out(size + flv::kTagOverhead);
  flv::writeTagHeader(out.data(), type, size, time);
  std::copy(data.begin(), data.end(), out.begin() + flv::kTagHeaderSize);
  flv::writeU32(&out[flv::kTagHeaderSize + size], size + flv::kTagHeaderSize);
  return out;
}

FlvBuilder::FlvBuilder(u32 headerSize, u8 flags) : bytes_(fileHeader(headerSize, flags)) {}

FlvBuilder& FlvBuilder::tag(u8 type, u32 time, u32 size) {
  return tag(type, time, payload(type, size, static_cast<u32>(tags_.size())));
}

FlvBuilder& FlvBuilder::tag(u8 type, u32 time, const Bytes& data) {
  tags_.push_back({size(), type, time, static_cast<u32>(data.size())});
  return raw(tagBytes(type, time, data));
}

FlvBuilder& FlvBuilder::trailing(u32 size) {
  flv::writeU32(&bytes_[bytes_.size() - flv::kSizeFieldSize], size);
  return *this;
}

FlvBuilder& FlvBuilder::raw(const Bytes& bytes) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  return *this;
}

FlvBuilder& FlvBuilder::interleaved(u32 count, u32 firstTime, u32 stepMs) {
  for (u32 i = 0; i < count; ++i)
    tag(i % 3 == 2 ? flv::kTypeAudio : flv::kTypeVideo, firstTime + i * stepMs, 100 + i * 37 % 400);
  return *this;
}

u32 FlvBuilder::nextTime() const {
  return tags_.empty() ? 0 : lastTime() + kStepMs;
}

FlvBuilder& FlvBuilder::constantRate(i64 fileSize, u32 tagSize) {
  for (u32 time = nextTime(); size() < fileSize; time += kStepMs) tag(flv::kTypeVideo, time, tagSize);
  return *this;
}

FlvBuilder& FlvBuilder::scenes(i64 fileSize, u32 seed) {
  static constexpr u32 kTagSizes[] = {4000, 100, 1300, 250, 2400};  // 40 times from least to most
  for (u32 time = nextTime(), scene = seed; size() < fileSize; ++scene) {
    const u32 frames = 50 + scene * 131 % 200;
    for (u32 i = 0; i < frames && size() < fileSize; ++i, time += kStepMs)
      tag(flv::kTypeVideo, time, kTagSizes[scene % std::size(kTagSizes)]);
  }
  return *this;
}

FileImage uniformFlv(i64 count, u32 dataSize, u32 stepMs) {
  return uniformFlv(count, dataSize, [=](i64 tag) { return static_cast<u32>(tag) * stepMs; });
}

FileImage uniformFlv(i64 count, u32 dataSize, const std::function<u32(i64 tag)>& timeOf) {
  const i64 step = i64{dataSize} + flv::kTagOverhead;
  const Bytes header = fileHeader(flv::kFileHeaderSize, 5);
  const Bytes model = tagBytes(flv::kTypeVideo, 0, payload(flv::kTypeVideo, dataSize, 1));
  const auto fill = [=](i64 position, u8* out, u32 size) {
    u32 done = 0;
    for (; done < size && position + done < flv::kFirstTagPosition; ++done)
      out[done] = header[static_cast<u32>(position) + done];
    while (done < size) {
      const i64 at = position + done - flv::kFirstTagPosition;
      const auto offset = static_cast<u32>(at % step);
      const auto part = static_cast<u32>(std::min<i64>(size - done, step - offset));
      u8 tagHeader[flv::kTagHeaderSize];
      flv::writeTagHeader(tagHeader, flv::kTypeVideo, dataSize, timeOf(at / step));
      std::copy_n(model.begin() + offset, part, out + done);
      if (offset < flv::kTagHeaderSize)
        std::copy_n(tagHeader + offset, std::min(part, flv::kTagHeaderSize - offset), out + done);
      done += part;
    }
  };
  return {flv::kFirstTagPosition + count * step, fill};
}

}  // namespace orv::test
