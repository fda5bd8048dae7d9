// Looks at every byte of a file and reports what is wrong with it.

#pragma once

#include <functional>

#include "host/check/Findings.h"
#include "host/check/TimeCheck.h"
#include "host/flv/MetadataFacts.h"
#include "host/flv/StreamFacts.h"
#include "host/flv/Walker.h"

namespace orv::host {

// Walks through `source` once. `onProgress`(position) is called now and then.
class Checker {
 public:
  using ProgressSink = std::function<void(i64 position)>;

  explicit Checker(ByteSource& source) : walker_(source, Payloads::fronts), times_(findings_) {}

  // Each tag goes to `sink` as well, large media with their fronts alone. Before run().
  using TagSink = std::function<void(const Tag& tag, const std::optional<MediaHead>& head)>;
  void observe(TagSink sink) { observer_ = std::move(sink); }

  void run(const ProgressSink& onProgress);

  const Findings& findings() const { return findings_; }
  const std::optional<Walker::FileHeader>& header() const { return walker_.header(); }
  const StreamFacts& facts() const { return facts_; }
  i64 fileSize() const { return walker_.position(); }

 private:
  void checkHeader();
  void noteBreak(const Break& gap);
  void noteTag(const WalkedTag& tag);
  void checkSizeField(const WalkedTag& tag);
  void checkType(const WalkedTag& tag);
  void checkMedia(const WalkedTag& tag, const MediaHead& head);
  void checkKeyFrame(const WalkedTag& tag, const MediaHead& head);
  void noteMetadata(const WalkedTag& tag);
  void noteIndexed(const WalkedTag& tag, const std::optional<MediaHead>& head);
  void reportBeside(const KeyFrame& entry);
  void checkFlags();
  void checkClaims();
  void add(Code code, const WalkedTag& tag, std::string text) {
    findings_.add(code, std::move(text), tag.position, tag.tag.time);
  }

  Walker walker_;
  TagSink observer_;
  Findings findings_;
  StreamFacts facts_;
  TimeCheck times_;
  bool audioIsSetUp_ = false, videoIsSetUp_ = false;
  std::optional<u32> keyFrameTime_;
  bool isWithoutKeyFrame_ = false;  // Reported.
  std::optional<Metadata> metadata_;
  i64 metadataPosition_ = 0;
  std::vector<KeyFrame> index_;  // By position.
  std::size_t indexed_ = 0;      // So many of its entries have been passed.
};

}  // namespace orv::host
