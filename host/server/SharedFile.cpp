#include "host/server/SharedFile.h"

#include <algorithm>

#include "host/flv/CodecSetups.h"
#include "host/flv/FlvNames.h"
#include "host/module/SegmentWalk.h"
#include "host/text/Console.h"

namespace orv::host {

namespace {

u32 absolute(const ViewTime& time, u32 duration) {
  if (!time.fromEnd) return time.ms;
  return duration > time.ms ? duration - time.ms : 0;
}

}  // namespace

SharedFile::SharedFile(Session& session, const std::string& file, u64 number, PieceCache& cache,
                       Surroundings around)
    : number_(number), cache_(cache), around_(std::move(around)), stream_(session.open(file)) {}

SharedFile::~SharedFile() {
  cache_.forget(number_);
}

bool SharedFile::isReplaced() {
  const std::lock_guard lock(streamMutex_);  // First: what is known to be there by now stands there still.
  const auto now = lookUp(stream_.name());
  return !now || !now->isSame(stream_.identity()) || now->size < end_;
}

// The last of each kind before `time`, of those that are known; else those at the file's front.
std::vector<OwnedTag> SharedFile::setupsBefore(u32 time, const PlayStart& place) {
  CodecSetups setups;
  if (place.position == 0 && place.skip == 0) return {};
  if (const auto first = stream_.segmentAtPosition(0)) {
    stream_.load(*first, [&](const Message& message) {
      forEachTag(message, [&](const Tag& tag) {
        if (tag.time <= time) setups.note(tag);
      });
    });
  }
  for (const Setup& setup : around_.setups()) {
    if (setup.time <= time) setups.note(setup.tag.view());
  }
  return setups.tags();
}

SharedFile::Start SharedFile::start(std::optional<ViewTime> from, std::optional<ViewTime> to) {
  const std::lock_guard lock(streamMutex_);
  stream_.requirePlayable();
  const u32 duration = stream_.duration();
  Start start;
  const u32 begin = from ? absolute(*from, duration) : 0;
  if (from) start.place = findPlayStart(stream_, begin);
  if (to) start.end = absolute(*to, duration);

  const u8 header[flv::kFirstTagPosition] = {
      'F', 'L', 'V', 1, expectedFlags(stream_), 0, 0, 0, flv::kFileHeaderSize};
  Piece head;
  stream_.headRecords([&](const HeadRecord& record) {
    if (record.trackId != kTrackControl) head.add(record.tag);
  });
  for (const OwnedTag& setup : setupsBefore(begin, start.place)) {
    Tag tag = setup.view();
    tag.time = begin;
    head.add(tag);
  }
  start.head.assign(header, header + sizeof header);
  start.head.insert(start.head.end(), head.bytes.begin(), head.bytes.end());
  return start;
}

void SharedFile::next(i64 position, Ready ready) {
  if (PiecePtr piece = cache_.find({number_, position})) return ready.call(std::move(piece));
  const std::lock_guard lock(mutex_);
  const auto [place, isNew] = wanted_.try_emplace(position);
  place->second.push_back(std::move(ready));
  if (isNew) around_.pool([self = shared_from_this(), position] { self->fetch(position); });
}

// Null where nothing stands behind `position` yet. What is damaged is gone past.
PiecePtr SharedFile::load(i64 position) {
  const std::lock_guard lock(streamMutex_);
  SegmentWalk walk(stream_, position);
  end_ = std::max(end_, walk.end());
  while (auto bounds = walk.next()) {
    // What ended at the file's old end is found as one segment with what was loaded of it.
    bounds->startPosition = std::max(bounds->startPosition, position);
    auto piece = std::make_shared<Piece>();
    piece->bytes.reserve(static_cast<std::size_t>(bounds->endPosition - bounds->startPosition + 1));
    stream_.load(*bounds, [&](const Message& message) {
      forEachTag(message, [&](const Tag& tag) {
        if (isKnownType(tag.type)) piece->add(tag);
      });
    });
    piece->next = walk.position();
    if (!piece->bytes.empty()) return piece;
  }
  return nullptr;
}

void SharedFile::fetch(i64 position) {
  u64 wakesBefore;
  {
    const std::lock_guard lock(mutex_);
    wakesBefore = wakes_;
  }
  // First: what a recording leaves behind at its end is still loaded.
  const bool isLive = !isOver_ && around_.isLive();
  PiecePtr piece;
  try {
    if (!isOver_) piece = load(position);
  } catch (const std::exception& fault) {
    tell(fault.what());
  }
  if (piece) cache_.keep({number_, position}, piece);
  std::vector<Ready> ready;
  {
    const std::lock_guard lock(mutex_);
    if (!piece && isLive) {
      if (wakes_ != wakesBefore) {
        return around_.pool([self = shared_from_this(), position] { self->fetch(position); });
      }
      auto& waiting = waiting_[position];
      for (Ready& one : wanted_[position]) {
        if (!one.owner.expired()) waiting.push_back(std::move(one));
      }
      if (waiting.empty()) waiting_.erase(position);
      wanted_.erase(position);
      return;
    }
    ready = std::move(wanted_[position]);
    wanted_.erase(position);
  }
  // Asked, not held: an owner must not end on this thread.
  for (const Ready& one : ready) {
    if (!one.owner.expired()) one.call(piece);
  }
}

void SharedFile::wake() {
  const std::lock_guard lock(mutex_);
  ++wakes_;
  for (auto& [position, list] : waiting_) {
    const auto [place, isNew] = wanted_.try_emplace(position);
    for (Ready& one : list) place->second.push_back(std::move(one));
    if (isNew) {
      around_.pool([self = shared_from_this(), at = position] { self->fetch(at); });
    }
  }
  waiting_.clear();
}

void SharedFile::endHere() {
  isOver_ = true;
  wake();
}

bool SharedFile::hasWaiting() const {
  const std::lock_guard lock(mutex_);
  return !waiting_.empty();
}

}  // namespace orv::host
