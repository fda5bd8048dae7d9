// FLV streams as the tests make them and take them apart.

#pragma once

#include "TempDir.h"
#include "host/flv/FlvReader.h"
#include "support/AmfText.h"
#include "support/FlvBuilder.h"
#include "support/Holders.h"

namespace orv::host::test {

using orv::test::bytesOf;
using orv::test::FlvBuilder;
using orv::test::tagBytes;
using TagList = std::vector<orv::test::Message>;

// Behind what `file` holds: 50 tags a second, each fifth of them sound, which sets in at once, and one a key
// frame.
inline FlvBuilder movie(u32 tags = 700, FlvBuilder file = FlvBuilder(), u32 firstTime = 0) {
  for (u32 i = 0; i < tags; ++i) {
    const u8 type = i % 5 ? flv::kTypeVideo : flv::kTypeAudio;
    Bytes data = orv::test::payload(type, 1000, i);
    if (i % 5 && i % 50 != 1) data[0] = 0x22;
    file.tag(type, firstTime + i * 20, data);
  }
  return file;
}

inline Bytes onMetaData(const std::string& entries = "") {
  return bytesOf("02 000A'onMetaData' 08 00000000" + entries + "000009");
}

// `a`, and `b` from a place on.
inline Bytes join(Bytes a, const Bytes& b, i64 from = 0) {
  a.insert(a.end(), b.begin() + from, b.end());
  return a;
}

inline orv::test::Message tagOf(const FlvBuilder& file, std::size_t index) {
  const auto& tag = file.tags()[index];
  const auto data = file.bytes().begin() + tag.position + flv::kTagHeaderSize;
  return {tag.type, tag.time, {data, data + tag.size}};
}

// Whether `tags` from the one at `from` on are those that the film has there.
inline bool isPart(const TagList& tags, std::size_t from, const FlvBuilder& film) {
  for (std::size_t i = from; i < tags.size(); ++i) {
    if (i >= film.tags().size() || tags[i] != tagOf(film, i)) return false;
  }
  return true;
}

// The film's tags from `begin` to before `end`; its header with the first.
inline Bytes cut(const FlvBuilder& film, std::size_t begin, std::size_t end) {
  const auto bytes = film.bytes().begin();
  return {bytes + (begin ? film.tags()[begin].position : 0), bytes + film.tags()[end - 1].end()};
}

// A handler that keeps each tag in `tags`.
inline auto into(TagList& tags) {
  return [&tags](const Tag& tag) { tags.push_back({tag.type, tag.time, {tag.data, tag.data + tag.size}}); };
}

// The tags of a stream without a fault.
inline TagList tagsOf(const std::string& flvBytes) {
  TagList tags;
  FlvReader reader(into(tags));
  EXPECT_TRUE(reader.feed(reinterpret_cast<const u8*>(flvBytes.data()), flvBytes.size())) << reader.fault();
  return tags;
}

}  // namespace orv::host::test
