// Films that were hurt, with what is left of them.

#pragma once

#include <map>

#include "Movie.h"
#include "host/files/ByteSource.h"
#include "support/Random.h"

namespace orv::host::test {

class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(Bytes bytes, bool isSeekable = false)
      : bytes_(std::move(bytes)), isSeekable_(isSeekable) {}
  const std::string& name() const override { return name_; }
  i64 size() const override { return static_cast<i64>(bytes_.size()); }
  bool isSeekable() const override { return isSeekable_; }
  std::size_t bytesRead() const { return bytesRead_; }
  std::size_t read(i64 position, u8* out, std::size_t size) override {
    EXPECT_TRUE(isSeekable_ || position >= last_ || position == 0) << position;
    last_ = position;
    const std::size_t from = std::min(bytes_.size(), static_cast<std::size_t>(position));
    size = std::min(size, bytes_.size() - from);
    bytesRead_ += size;
    std::copy_n(bytes_.begin() + static_cast<i64>(from), size, out);
    return size;
  }

 private:
  const Bytes bytes_;
  const bool isSeekable_;
  const std::string name_ = "memory";
  std::size_t bytesRead_ = 0;
  i64 last_ = 0;
};

// Audio and video every 20 ms, each as long as the other.
struct Film : FlvBuilder {
  explicit Film(const Bytes& metadata = onMetaData(), u8 flags = 5) : FlvBuilder(9, flags) {
    if (!metadata.empty()) tag(18, 0, metadata);
  }
  Film& frames(u32 count = 50, u32 time = 0, u8 video = 0x12, u8 audio = 0x2F) {
    for (u32 i = 0; i < count; ++i) {
      tag(9, time + i * 20, Bytes{video, 1, 0, 0, 0, 9});
      tag(8, time + i * 20, Bytes{audio, 1, 2});
    }
    return *this;
  }
  Film& with(u8 type, u32 time, const Bytes& data) {
    tag(type, time, data);
    return *this;
  }
};

inline Bytes noise(std::size_t size, u32 seed = 7) {
  return orv::test::payload(0, static_cast<u32>(size), seed);
}

// Edits of one film; positions are those of the sound film. Edits don't overlap.
class Damage {
 public:
  explicit Damage(FlvBuilder film) : film_(std::move(film)) {}

  Damage& insert(i64 at, Bytes bytes) { return edit(at, 0, std::move(bytes)); }
  Damage& remove(i64 at, i64 count) { return edit(at, count, {}); }
  Damage& overwrite(i64 at, Bytes bytes) {
    const auto count = static_cast<i64>(bytes.size());
    return edit(at, count, std::move(bytes));
  }
  // For all tags: their trailing fields.
  template <class FieldOf>
  Damage& fields(FieldOf fieldOf) {
    for (const auto& tag : film_.tags()) {
      Bytes field(4);
      flv::writeU32(field.data(), fieldOf(tag.size));
      overwrite(tag.end() - 4, field);
    }
    fieldsMatter_ = false;
    return *this;
  }

  Bytes bytes() const {
    Bytes out;
    i64 done = 0;
    for (const auto& [at, edit] : edits_) {
      out.insert(out.end(), film_.bytes().begin() + done, film_.bytes().begin() + at);
      out.insert(out.end(), edit.bytes.begin(), edit.bytes.end());
      done = at + edit.removed;
    }
    return join(out, film_.bytes(), done);
  }
  // The tags of which no byte was touched.
  TagList whole() const {
    TagList tags;
    for (std::size_t i = 0; i < film_.tags().size(); ++i)
      if (isWhole(film_.tags()[i])) tags.push_back(tagOf(film_, i));
    return tags;
  }

 private:
  struct Edit {
    i64 removed;
    Bytes bytes;
  };
  Damage& edit(i64 at, i64 removed, Bytes bytes) {
    edits_[at] = {removed, std::move(bytes)};
    return *this;
  }
  bool isWhole(const orv::test::BuiltTag& tag) const {
    const i64 end = fieldsMatter_ ? tag.end() : tag.end() - 4;
    for (const auto& [at, edit] : edits_)
      if (at < end && std::max(at + edit.removed, at + (at > tag.position)) > tag.position) return false;
    return true;
  }

  const FlvBuilder film_;
  std::map<i64, Edit> edits_;
  bool fieldsMatter_ = true;
};

}  // namespace orv::host::test
