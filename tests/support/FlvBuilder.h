// Makes FLV files for tests: good ones, odd ones, and huge ones that are computed as they are read.

#pragma once

#include <optional>

#include "server/FLVTag.h"
#include "support/FileImage.h"

namespace orv::test {

// One tag and its place in the file.
struct BuiltTag {
  i64 position;
  u8 type;
  u32 time;
  u32 size;  // Of the data.
  i64 end() const { return position + size + flv::kTagOverhead; }
};

// Data for a tag, different for each `seed`: a plausible first byte, then noise.
Bytes payload(u8 type, u32 size, u32 seed);

// A tag's bytes, header and trailing size included.
Bytes tagBytes(u8 type, u32 time, const Bytes& data);

class FlvBuilder {
 public:
  // A header that claims `headerSize`, padded up to the place of the first tag, but to 1 MiB at most.
  explicit FlvBuilder(u32 headerSize = flv::kFileHeaderSize, u8 flags = 5);

  FlvBuilder& tag(u8 type, u32 time, u32 size);
  FlvBuilder& tag(u8 type, u32 time, const Bytes& data);
  FlvBuilder& trailing(u32 size);  // Overwrites the trailing size of the last tag.
  FlvBuilder& raw(const Bytes& bytes);

  // `count` tags of a few hundred bytes, two video to one audio, `stepMs` apart.
  FlvBuilder& interleaved(u32 count, u32 firstTime = 0, u32 stepMs = 20);
  // Tags every 20 ms up to about `size` bytes of file, at one rate or in scenes whose rates differ up to 40
  // times.
  FlvBuilder& constantRate(i64 size, u32 tagSize = 1000);
  FlvBuilder& scenes(i64 size, u32 seed = 1);

  const Bytes& bytes() const { return bytes_; }
  const std::vector<BuiltTag>& tags() const { return tags_; }
  i64 size() const { return static_cast<i64>(bytes_.size()); }
  u32 lastTime() const { return tags_.empty() ? 0 : tags_.back().time; }

 private:
  u32 nextTime() const;

  Bytes bytes_;
  std::vector<BuiltTag> tags_;
};

// A file of `count` equal video tags of `dataSize` bytes, `stepMs` apart, that takes no memory.
FileImage uniformFlv(i64 count, u32 dataSize, u32 stepMs);
// The same, at any times.
FileImage uniformFlv(i64 count, u32 dataSize, const std::function<u32(i64 tag)>& timeOf);

}  // namespace orv::test
