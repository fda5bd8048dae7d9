// Takes an FLV stream apart as it arrives from a pipe: in pieces of any size, with nobody to ask for more.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/flv/Tags.h"

namespace orv::host {

// Holds at most one tag, and only as much of it as has come: a size that lies costs no memory. Where damage
// is to be gone past, it holds 34 MiB at most until a Walker has found where tags go on.
class FlvReader {
 public:
  using Handler = std::function<void(const Tag&)>;
  // Gets the bytes of the stream that belong to no tag, before the tag that follows them.
  using DamageHandler = std::function<void(u64 position, u64 size)>;
  // `handler` gets each tag as soon as it is whole, its trailing size field included. Without `onDamage` the
  // first damage is a fault.
  explicit FlvReader(Handler handler, DamageHandler onDamage = {})
      : handler_(std::move(handler)), onDamage_(std::move(onDamage)) {}

  // The next bytes of the stream. False, from then on, if it can't be followed farther: fault() says why.
  // What the handler throws leaves the call, and the reader is of no use any more.
  bool feed(const u8* data, std::size_t size);

  // No more comes: what is held because its damage wasn't gone past yet is looked through once more.
  void finish();

  bool hasHeader() const { return step_ != Step::header && fault_.empty(); }
  // Whether damage is being gone past, or was not by the end.
  bool isLost() const { return step_ == Step::lost; }
  const std::string& fault() const { return fault_; }
  // Bytes at the end of what came that belong to no whole tag.
  u64 leftOver() const { return step_ == Step::lost ? position_ - lostFrom_ : pending_.size(); }
  // Where the stream ends if no more comes: empty at a tag's end, else what is missing.
  std::string explainEnd() const;

 private:
  enum class Step { header, gap, tagHeader, tagBody, lost };

  void complete();
  void completeHeader();
  void completeTagHeader();
  void completeTag();
  void goPast(std::string fault);
  void completeLost();
  void takeFound(std::size_t beyond);
  void expectTag();
  void want(Step step, u64 bytes) { step_ = step, wanted_ = bytes; }

  const Handler handler_;
  const DamageHandler onDamage_;
  Step step_ = Step::header;
  u64 wanted_ = flv::kFileHeaderSize;  // Of the gap, what is left; else what `pending_` must hold.
  std::vector<u8> pending_;
  u64 position_ = 0;  // Of the next byte to come.
  u64 lostFrom_ = 0;  // Where the damage begins that is being gone past.
  std::string fault_;
};

// The report of such bytes in the stream `name`.
std::string damageText(const std::string& name, u64 position, u64 size);

}  // namespace orv::host
