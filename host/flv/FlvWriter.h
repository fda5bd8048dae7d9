// Writes an FLV stream that is sound from its first byte: each size field is true, whatever stood in
// the file that the tags came from.

#pragma once

#include <vector>

#include "host/files/OutputFile.h"
#include "host/flv/Tags.h"

namespace orv::host {

class FlvWriter {
 public:
  explicit FlvWriter(OutputFile& out) : out_(out) {}

  // First. `flags` are the type flags, as well as they are known.
  void header(u8 flags);
  void tag(const Tag& tag);
  // A tag that goes into an aggregate, written as one tag of type 22 with the time of its first entry as soon
  // as it is complete. A tag too big for any aggregate goes out alone.
  void join(const Tag& tag);
  void completeAggregate();
  // Bytes written so far: the place of what comes next.
  i64 position() const { return position_; }
  // Whether what was written can still be replaced: not in a pipe.
  bool canReplace() const { return out_.isFile(); }
  void replace(i64 position, const std::vector<u8>& bytes) {
    out_.patch(position, bytes.data(), bytes.size());
  }
  // Last. Puts the flags right, if the output can still be mended, and closes it.
  void finish();

 private:
  OutputFile& out_;
  i64 position_ = 0;
  u8 flags_ = 0;
  u8 seenFlags_ = 0;
  std::vector<u8> aggregate_;
  u32 aggregateTime_ = 0;

  void write(const void* data, std::size_t size);
  void writeTag(const Tag& tag);
  void noteKind(const Tag& tag);
};

}  // namespace orv::host
