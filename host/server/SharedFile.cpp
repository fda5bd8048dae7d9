#include "host/server/SharedFile.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/flv/FlvNames.h"
#include "host/module/SegmentWalk.h"
#include "host/text/Console.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

// Damage in which no segment is found is looked through for whole tags up to this size: they all become one
// piece.
constexpr i64 kMostSearched = 16 << 20;

u32 absolute(const ViewTime& time, u32 duration) {
  if (!time.fromEnd) return time.ms;
  return duration > time.ms ? duration - time.ms : 0;
}

}  // namespace

SharedFile::SharedFile(std::string file, u64 number, PieceCache& cache, Surroundings around)
    : name_(std::move(file)),
      file_(Descriptor::open(name_, O_RDONLY)),
      number_(number),
      cache_(cache),
      around_(std::move(around)),
      opened_(new Opened{around_.open(name_)}) {
  if (!file_) throw hostFault(name_ + ": " + std::strerror(errno));
}

SharedFile::~SharedFile() {
  for (const i64 position : cache_.forget(number_)) opened_->stream.freeSegment(position);
}

void SharedFile::onFreed(i64 position) {
  const std::lock_guard lock(streamMutex_);
  opened_->stream.freeSegment(position);
}

bool SharedFile::isReplaced() {
  const std::lock_guard lock(streamMutex_);  // First: what is known to be there by now stands there still.
  return !isNamed() || identity().size < end_;
}

FileIdentity SharedFile::identity() const {
  const auto status = file_.status();
  if (!status) throw hostFault(name_ + ": " + std::strerror(errno));
  return {status->st_dev, status->st_ino, status->st_size};
}

bool SharedFile::isNamed() const {
  const auto now = lookUp(name_);
  return now && now->isSame(identity());
}

// The result of `work` with the file that was opened. The module reads by name: what came of another file
// that has it is dropped, and `work` is done again. The caller holds streamMutex_.
template <class Work>
auto SharedFile::read(Work work) {
  if (hasMoved_) return work();
  try {
    auto result = work();
    if (isNamed()) return result;
  } catch (const std::exception&) {
    if (isNamed()) throw;
  }
  opened_.reset(new Opened{around_.open(fmt::format("/proc/self/fd/{}", file_.get()))});
  hasMoved_ = true;
  return work();
}

SharedFile::Start SharedFile::start(std::optional<ViewTime> from, std::optional<ViewTime> to) {
  const std::lock_guard lock(streamMutex_);
  return read([&] { return findStart(from, to); });
}

SharedFile::Start SharedFile::findStart(std::optional<ViewTime> from, std::optional<ViewTime> to) {
  Stream& stream = opened_->stream;
  stream.requirePlayable();
  const u32 duration = stream.duration();
  Start start;
  const u32 begin = from ? absolute(*from, duration) : 0;
  if (from) start.place = findPlayStart(stream, begin);
  if (to) start.end = absolute(*to, duration);

  const auto header = fileHeader(expectedFlags(stream));
  Piece head;
  stream.headRecords([&](const HeadRecord& record) {
    if (record.trackId != kTrackControl) head.add(record.tag);
  });
  if (start.place.position > 0 || start.place.skip > 0) {
    auto known = around_.setups(identity());
    for (const OwnedTag& setup :
         opened_->setups.before(start.place.position, start.place.skip, std::move(known)).tags()) {
      Tag tag = setup.view();
      tag.time = start.place.time;
      head.add(tag);
    }
  }
  start.head.assign(header.begin(), header.end());
  start.head.insert(start.head.end(), head.bytes.begin(), head.bytes.end());
  return start;
}

void SharedFile::next(i64 position, Ready ready) {
  if (PiecePtr piece = cache_.find({number_, position})) return ready.call({std::move(piece)});
  const std::lock_guard lock(mutex_);
  const auto [place, isNew] = wanted_.try_emplace(position);
  place->second.push_back(std::move(ready));
  if (isNew) around_.pool([self = shared_from_this(), position] { self->fetch(position); });
}

void SharedFile::loadAhead(i64 position) {
  if (cache_.holds({number_, position})) return;
  const std::lock_guard lock(mutex_);
  if (waiting_.contains(position) || !wanted_.try_emplace(position).second) return;
  around_.pool([self = shared_from_this(), position] { self->fetch(position); });
}

// What the module doesn't deliver of a damaged run is taken from there tag by tag.
void SharedFile::loadRun(const SegmentBounds& bounds, Piece& piece) {
  DeliveredTags delivered;
  const bool isWhole = opened_->stream.load(bounds, [&](const Message& message) {
    forEachTag(message, [&](const Tag& tag) {
      delivered.note(tag);
      if (isKnownType(tag.type)) piece.add(tag);
    });
  });
  if (!isWhole) recover(bounds.startPosition, bounds.endPosition + 1, delivered, piece);
}

void SharedFile::recover(i64 from, i64 to, const DeliveredTags& delivered, Piece& piece) {
  if (!hasMoved_ && !isNamed()) return;  // It's another file's bytes that made no sense.
  ++around_.faults.damaged;
  u64 found = 0;
  if (to - from <= kMostSearched) {
    found = LostTags(opened_->stream, from, to)
                .load(delivered, [&](const SegmentBounds&, const Message& message) {
                  forEachTag(message, [&](const Tag& tag) {
                    if (isKnownType(tag.type)) piece.add(tag);
                  });
                });
  }
  around_.faults.recovered += found;
  if (from < std::exchange(toldTo_, std::max(toldTo_, to))) return;
  report(fmt::format("{}: damaged between bytes {} and {}; tags found behind the damage: {}", name_, from,
                     to - 1, found));
}

// Null where nothing stands behind `position` yet. What is damaged is gone past.
SharedFile::Loaded SharedFile::loadFrom(i64 position) {
  SegmentWalk walk(opened_->stream, position);
  const auto piece = std::make_shared<Piece>();
  while (piece->bytes.empty() && walk.position() < walk.end()) {
    const std::size_t gaps = walk.gaps().size();
    auto bounds = walk.next();
    if (walk.gaps().size() > gaps) recover(walk.gaps().back().begin, walk.gaps().back().end, {}, *piece);
    if (bounds) {
      // What ended at the file's old end is found as one segment with what was loaded of it.
      bounds->startPosition = std::max(bounds->startPosition, position);
      piece->bytes.reserve(static_cast<std::size_t>(bounds->endPosition - bounds->startPosition + 1));
      loadRun(*bounds, *piece);
    }
    piece->next = walk.position();
  }
  return {piece->bytes.empty() ? nullptr : piece, walk.end()};
}

PiecePtr SharedFile::load(i64 position) {
  const std::lock_guard lock(streamMutex_);
  const auto [piece, end] = read([&] { return loadFrom(position); });
  overhead_ = opened_->stream.memoryOverhead();
  end_ = std::max(end_, end);
  if (identity().size >= end_) return piece;
  isCut_ = true;
  return nullptr;
}

void SharedFile::fetch(i64 position) {
  u64 wakesBefore;
  {
    const std::lock_guard lock(mutex_);
    wakesBefore = wakes_;
  }
  // First: what a recording leaves behind at its end is still loaded.
  const auto status = file_.status();
  const bool mayGrow = !isCut_ && status && around_.isLive(*status);
  PiecePtr piece;
  bool isFailed = false;
  try {
    if (!isCut_) piece = load(position);
  } catch (const std::exception& fault) {
    isFailed = true;
    report(fault.what());
  }
  const bool isLive = mayGrow && !isCut_;
  isFailed |= isCut_ && !piece;
  if (piece) {
    const std::size_t overhead = with([this](Stream&) { return overhead_; });
    cache_.keep({number_, position}, piece, weak_from_this(), overhead);
  }
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
  around_.faults.failed += isFailed && !ready.empty();
  // Asked, not held: an owner must not end on this thread.
  for (const Ready& one : ready) {
    if (!one.owner.expired()) one.call({piece, isFailed});
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

bool SharedFile::hasWaiting() const {
  const std::lock_guard lock(mutex_);
  return !waiting_.empty();
}

}  // namespace orv::host
