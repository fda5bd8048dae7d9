#include "host/module/TagVerifier.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/text/Failure.h"

namespace orv::host {

namespace {

std::string describe(const Tag& tag) {
  return fmt::format("type {}, {} bytes, {} ms", tag.type, tag.size, tag.time);
}

}  // namespace

TagVerifier::TagVerifier(const Stream& stream) : file_(stream.name()) {
  u8 header[flv::kFileHeaderSize] = {};
  if (!file_.isOpen()) throw hostFault(stream.name() + ": " + std::strerror(errno));
  file_.read(0, header, sizeof header);
  firstTag_ = flv::readU32(header + flv::kHeaderSizePosition) + flv::kSizeFieldSize;
  stream.headRecords([&](const HeadRecord& record) {
    if (record.trackId == kTrackControl) return;
    contexts_.push_back({{record.tag.data, record.tag.data + record.tag.size}});
  });
  allContexts_ = stream.allContexts();
}

void TagVerifier::beginSegment(const SegmentBounds& bounds) {
  pending_.clear();
  pendingAtZero_.clear();
  readSegment(std::max(bounds.startPosition, firstTag_), bounds.endPosition + 1);
}

void TagVerifier::readSegment(i64 start, i64 end) {
  segment_.resize(static_cast<std::size_t>(std::max<i64>(end - start, 0)));
  const std::size_t filled = file_.read(start, segment_.data(), segment_.size());
  if (filled < segment_.size())
    fault(fmt::format("the file cannot be read at byte {}", start + static_cast<i64>(filled)));
  segment_.resize(filled);
  for (std::size_t at = 0; segment_.size() - at >= flv::kTagOverhead;) {
    const flv::TagHeader header{segment_.data() + at};
    const u32 size = header.dataSize();
    if (size > segment_.size() - at - flv::kTagOverhead) break;
    const Tag tag{header.typeByte(), header.time(), header.streamId(), header.bytes + flv::kTagHeaderSize,
                  size};
    (tag.time == 0 ? pendingAtZero_ : pending_).push_back({start + static_cast<i64>(at), tag});
    at += size + flv::kTagOverhead;
  }
}

void TagVerifier::check(const Message& message) {
  const bool whole = forEachTag(message, [&](const Tag& tag) { checkTag(tag, message.isAggregate()); });
  if (!whole)
    fault(fmt::format("an aggregate of {} bytes at {} ms ends inside an entry", message.size, message.time));
}

void TagVerifier::checkTag(const Tag& tag, bool inAggregate) {
  std::deque<FileTag>& queue = tag.time == 0 ? pendingAtZero_ : pending_;
  while (!queue.empty()) {
    const FileTag expected = queue.front();
    queue.pop_front();
    if (tag.hasContentOf(expected.tag)) {
      if (inAggregate && tag.streamId != expected.tag.streamId) {
        fault(fmt::format("the tag at byte {} has another stream id in its aggregate", expected.position));
      }
      ++tags_;
      bytes_ += tag.size + flv::kTagOverhead;
      return;
    }
    if (mayBeLeftOut(expected.tag)) continue;
    return fault(fmt::format("the tag at byte {} ({}) came as {}", expected.position, describe(expected.tag),
                             describe(tag)));
  }
  fault(fmt::format("a tag came that the file does not hold here ({})", describe(tag)));
}

bool TagVerifier::mayBeLeftOut(const Tag& tag) {
  if (tag.isEmptyFrame()) {
    ++droppedFrames_;
    return true;
  }
  if (tag.time != 0 || !tag.isData()) return false;
  // Asked one by one, the contexts are the last of each kind; a file may hold several.
  const u8* const end = tag.data + tag.size;
  if (std::search(allContexts_.begin(), allContexts_.end(), tag.data, end) == allContexts_.end())
    return false;
  for (Context& context : contexts_) {
    context.met |= std::equal(context.data.begin(), context.data.end(), tag.data, end);
  }
  ++headRecords_;
  return true;
}

void TagVerifier::endSegment() {
  for (auto* const queue : {&pendingAtZero_, &pending_}) {
    for (const FileTag& expected : *queue) {
      if (mayBeLeftOut(expected.tag)) continue;
      fault(fmt::format("the tag at byte {} ({}) never came", expected.position, describe(expected.tag)));
    }
  }
}

void TagVerifier::endFile() {
  for (const Context& context : contexts_) {
    if (!context.met) fault("a head record came that is not in the file");
  }
}

void TagVerifier::fault(const std::string& text) {
  if (faults_++ == 0) firstFault_ = text;
}

}  // namespace orv::host
