#include "host/module/SetupNotes.h"

#include <algorithm>
#include <utility>

#include "host/text/Console.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

// Every player reads so much of a file's front.
constexpr i64 kHead = 64 << 10;
// A list that ends so far in front of the file's end is renewed; what a crash leaves uncovered is looked
// through when the file is appended to.
constexpr i64 kMostBehind = 16 << 20;
constexpr i64 kMostCaughtUp = 64 << 20;

i64 sizeOf(const Descriptor& file) {
  const auto status = file.status();
  return status ? status->st_size : 0;
}

}  // namespace

void SetupNotes::begin(std::string media, const Descriptor& file, const CodecSetups& valid) {
  *this = {};
  media_ = std::move(media);
  staged_ = flushed_ = valid;
  const i64 size = sizeOf(file);
  if (size > flv::kFirstTagPosition) {
    goOnWith(file, size);
  } else {
    list_.to = flv::kFirstTagPosition;
  }
  if (!isSaved_) SetupList::remove(media_);
}

void SetupNotes::goOnWith(const Descriptor& file, i64 size) {
  auto old = SetupList::read(media_);
  CodecSetups listed;
  const bool isTrue = old && old->to <= size && size - old->to <= kMostCaughtUp &&
                      std::all_of(old->places.begin(), old->places.end(), [&](const SetupPlace& place) {
                        const auto tag = readSetup(file.get(), place);
                        return tag && (listed.note(tag->view()), true);
                      });
  if (isTrue && noteSetups(file.get(), size, listed, *old)) {
    list_ = std::move(*old);
    staged_.addOlder(listed);
    flushed_.addOlder(listed);
    isWanted_ = isSaved_ = true;
  } else {
    list_.from = list_.to = size;
  }
}

void SetupNotes::flushed(const Descriptor& file) {
  if (isOver_) return;
  const std::size_t before = list_.places.size();
  const i64 end = sizeOf(file);
  if (!std::exchange(hasNews_, false)) {
    list_.to = end;
  } else if (noteSetups(file.get(), end, flushed_, list_)) {
    admitNews(before);
  } else {
    isOver_ = true;
  }
  const bool isDue = list_.places.size() > before || list_.to - savedTo_ >= kMostBehind;
  if (isWanted_ && isDue) save();
}

// A file that has no more than each kind's record at its head needs no list.
void SetupNotes::admitNews(std::size_t before) {
  auto& places = list_.places;
  if (places.size() > SetupList::kMostPlaces) {
    list_.to = places[SetupList::kMostPlaces].position;
    places.resize(SetupList::kMostPlaces);
    isOver_ = true;
  }
  for (auto place = places.begin() + static_cast<std::ptrdiff_t>(before); place != places.end(); ++place) {
    isWanted_ |= place->position >= kHead || std::any_of(places.begin(), place, [&](const SetupPlace& other) {
                   return other.key() == place->key();
                 });
  }
}

void SetupNotes::save() {
  try {
    list_.write(media_);
    isSaved_ = true;
    savedTo_ = list_.to;
  } catch (const Failure& failure) {
    report(failure.what());
    isWanted_ = false;
  }
}

void SetupNotes::end(const std::string& name) {
  if (name.empty()) {
    if (isSaved_) SetupList::remove(media_);
    return;
  }
  if (isSaved_ && name != media_) SetupList::rename(media_, name);
  media_ = name;
  if (isWanted_ && list_.to > savedTo_) save();
}

}  // namespace orv::host
