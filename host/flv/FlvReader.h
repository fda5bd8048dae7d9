// Takes an FLV stream apart as it arrives from a pipe: in pieces of any size, with nobody to ask for more.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/flv/Tags.h"

namespace orv::host {

// Holds at most one tag, and only as much of it as has come: a size that lies costs no memory.
class FlvReader {
 public:
  using Handler = std::function<void(const Tag&)>;
  // `handler` gets each tag as soon as it is whole, its trailing size field included.
  explicit FlvReader(Handler handler) : handler_(std::move(handler)) {}

  // The next bytes of the stream. False, from then on, if it can't be followed farther: fault() tells why.
  // What the handler throws leaves the call, and the reader is of no use any more.
  bool feed(const u8* data, std::size_t size);

  bool hasHeader() const { return step_ != Step::header && fault_.empty(); }
  const std::string& fault() const { return fault_; }
  // Where the stream ends if no more comes: empty at a tag's end, else what is missing.
  std::string explainEnd() const;

 private:
  enum class Step { header, gap, tagHeader, tagBody };

  void complete();
  void completeHeader();
  void completeTagHeader();
  void completeTag();
  void want(Step step, u64 bytes) { step_ = step, wanted_ = bytes; }

  const Handler handler_;
  Step step_ = Step::header;
  u64 wanted_ = flv::kFileHeaderSize;  // Of the gap, what is left; else what `pending_` must hold.
  std::vector<u8> pending_;
  u64 position_ = 0;  // Of the next byte to come.
  std::string fault_;
};

}  // namespace orv::host
