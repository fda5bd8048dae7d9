#include "host/files/RemoteFile.h"

#include <algorithm>

namespace orv::host {

namespace {

constexpr i64 kBlock = 4096;
constexpr std::size_t kMostBlocks = 4096;  // 16 MiB an object.
// What is fetched around a read, by its size: a few bytes far from everything are a look at one size field; a
// page of a search is followed by others near it; reads that follow one another are fetched ahead of.
constexpr i64 kSmallRead = 1024;
constexpr i64 kPageRead = 32 << 10;
constexpr i64 kAroundPage = 48 << 10;
// The module looks for the tags at both ends of a segment of this length, and they want some room.
constexpr i64 kSegment = 256 << 10;
constexpr i64 kAroundSegment = 64 << 10;
constexpr u32 kFirstReadAhead = 64 << 10;
constexpr u32 kMostReadAhead = 1 << 20;

i64 roundDown(i64 position) {
  return position / kBlock * kBlock;
}
i64 roundUp(i64 position) {
  return roundDown(position + kBlock - 1);
}

}  // namespace

u32 RemoteFile::stamp() const {
  const std::lock_guard lock(mutex_);
  return stamp_;
}

RemoteFile::Look RemoteFile::look() {
  const std::lock_guard lock(mutex_);
  if (stamp_ == 0) {
    ask(0, kFirstReadAhead);
  } else if (Clock::now() - lookedAt_ >= freshFor_) {
    ask(0, 1);
  }
  return {state_.size, stamp_};
}

void RemoteFile::requireReached() const {
  const std::lock_guard lock(mutex_);
  if (!fault_.empty()) throw remoteFailure(*this, fault_);
}

void RemoteFile::ask(i64 position, u32 size) {
  try {
    request(position, size);
    fault_.clear();
  } catch (const HttpFault& fault) {
    fault_ = fault.what();
    throw;
  }
}

// A server that answers a change by sending the whole anew doesn't say which state that is: ask again.
void RemoteFile::request(i64 position, u32 size) {
  constexpr int kMostRounds = 3;
  for (int round = 0; round < kMostRounds; ++round) {
    RangeAnswer answer = http_.get(url_, position, size, stamp_ ? &state_ : nullptr);
    lookedAt_ = Clock::now();
    if (stamp_ == 0 || answer.state != state_) become(answer.state);
    if (state_.size >= 0) return keep(position, answer.bytes);
    position = 0;
    size = kFirstReadAhead;
    state_ = {};
  }
  throw HttpFault("it changes faster than it can be read", false);
}

void RemoteFile::become(const ObjectState& state) {
  state_ = state;
  blocks_.clear();
  ages_.clear();
  frontier_ = -1;
  readAhead_ = 0;
  if (++stamp_ == 0) ++stamp_;
}

// Whole blocks alone, and the object's last one.
void RemoteFile::keep(i64 position, const std::vector<u8>& bytes) {
  const i64 end = position + static_cast<i64>(bytes.size());
  for (i64 at = roundUp(position); at < end; at += kBlock) {
    const i64 blockEnd = std::min(at + kBlock, state_.size);
    if (blockEnd > end) return;
    const auto begin = bytes.begin() + (at - position);
    const auto [place, isNew] = blocks_.try_emplace(at / kBlock);
    if (!isNew) continue;
    place->second.bytes.assign(begin, begin + (blockEnd - at));
    place->second.age = ages_.insert(ages_.begin(), at / kBlock);
  }
  for (; blocks_.size() > kMostBlocks; ages_.pop_back()) blocks_.erase(ages_.back());
}

// Whoever plays a file through looks for the next segment's end before reading up to it.
bool RemoteFile::isAtFrontier(i64 position) const {
  return frontier_ >= 0 && position >= frontier_ && position - frontier_ < readAhead_;
}

// Fetches what is missing from `position` on, and what is likely to be asked for next.
void RemoteFile::fetchAround(i64 position, std::size_t size, bool goesForward) {
  i64 begin = roundDown(position);
  i64 end = position + static_cast<i64>(size);
  const i64 length = end - position;
  if (goesForward || isAtFrontier(position)) {
    readAhead_ = std::clamp(readAhead_ * 2, kFirstReadAhead, kMostReadAhead);
    if (!goesForward) begin = frontier_;
    end = std::max<i64>(end, begin + readAhead_);
    frontier_ = std::min(roundUp(end), state_.size);
  } else if (length > kSmallRead && length <= kPageRead && seekers_ > 0) {
    // A page lies in front of the place that is looked for, mostly where a segment begins.
    const i64 segment = (position + length - 1) / kSegment * kSegment;
    begin = std::max<i64>(0, std::min(begin, segment - kAroundSegment));
    end = std::max(end, segment + kSegment + kAroundSegment);
  } else if (length > kSmallRead && length <= kPageRead) {
    begin = std::max<i64>(0, begin - kAroundPage);
    end += kAroundPage;
  }
  end = std::min(roundUp(end), state_.size);
  while (begin < position && blocks_.contains(begin / kBlock)) begin += kBlock;
  while (end > position + length && blocks_.contains((end - 1) / kBlock)) end = roundDown(end - 1);
  ask(begin, static_cast<u32>(end - begin));
}

std::size_t RemoteFile::takeCached(i64 position, u8* out, std::size_t size) {
  std::size_t taken = 0;
  while (taken < size) {
    const i64 at = position + static_cast<i64>(taken);
    const auto place = blocks_.find(at / kBlock);
    const auto offset = static_cast<std::size_t>(at % kBlock);
    if (place == blocks_.end() || offset >= place->second.bytes.size()) break;
    const std::vector<u8>& bytes = place->second.bytes;
    const std::size_t count = std::min(size - taken, bytes.size() - offset);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), count, out + taken);
    ages_.splice(ages_.begin(), ages_, place->second.age);
    taken += count;
  }
  return taken;
}

void RemoteFile::fetch(i64 begin, i64 end) {
  const std::lock_guard lock(mutex_);
  end = std::min(end, state_.size);
  begin = std::max<i64>(begin, 0);
  while (begin < end && blocks_.contains(begin / kBlock)) begin = roundDown(begin) + kBlock;
  if (begin >= end) return;
  try {
    ask(roundDown(begin), static_cast<u32>(std::min<i64>(roundUp(end) - roundDown(begin), kMostReadAhead)));
  } catch (const HttpFault&) {
    return;
  }
}

std::size_t RemoteFile::read(u32 stamp, i64 position, u8* out, std::size_t size) {
  const std::lock_guard lock(mutex_);
  if (stamp != stamp_) throw RemoteChanged();
  if (position < 0 || position >= state_.size) return 0;
  size = static_cast<std::size_t>(std::min<i64>(static_cast<i64>(size), state_.size - position));
  const bool goesForward = position == nextExpected_;
  std::size_t taken = 0;
  while (true) {
    taken += takeCached(position + static_cast<i64>(taken), out + taken, size - taken);
    if (taken == size) break;
    fetchAround(position + static_cast<i64>(taken), std::min<std::size_t>(size - taken, kMostReadAhead),
                goesForward);
    if (stamp != stamp_) throw RemoteChanged();
  }
  if (size > kSmallRead) nextExpected_ = position + static_cast<i64>(size);
  return size;
}

Failure remoteFailure(const RemoteFile& file, const std::string& reason) {
  return hostFault(shownAddress(file.url()) + ": " + reason);
}

RemoteFiles& RemoteFiles::shared() {
  static RemoteFiles files;
  return files;
}

std::shared_ptr<RemoteFile> RemoteFiles::find(const std::string& url) {
  const std::lock_guard lock(mutex_);
  std::shared_ptr<RemoteFile>& file = files_[url];
  if (!file) file = std::make_shared<RemoteFile>(http_, url);
  return file;
}

}  // namespace orv::host
