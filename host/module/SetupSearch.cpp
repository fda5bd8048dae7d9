#include "host/module/SetupSearch.h"

#include <fcntl.h>

#include <limits>
#include <utility>

#include "host/files/ModulePath.h"

namespace orv::host {

namespace {

constexpr u64 kAll = std::numeric_limits<u64>::max();
constexpr std::size_t kMostKnown = 256;

// The kind whose set-up record a frame's decoder may need.
std::optional<CodecSetups::Key> neededKey(const Tag& tag) {
  const auto head = mediaHead(tag);
  if (!head || !head->codec || !(head->needsSetup() || head->isExtended)) return std::nullopt;
  return CodecSetups::Key{tag.isAudio(), *head->codec};
}

}  // namespace

// Of the segment's first `most` tags. `frames` gets the kinds of all its frames.
CodecSetups SetupSearch::noteSegment(const SegmentBounds& bounds, u64 most, Keys* frames) {
  CodecSetups setups;
  u64 ordinal = 0;
  stream_.load(bounds, [&](const Message& message) {
    forEachTag(message, [&](const Tag& tag) {
      if (ordinal++ < most) setups.note(tag);
      const auto key = frames ? neededKey(tag) : std::nullopt;
      if (key && frames->size() < CodecSetups::kMostKinds) frames->insert(*key);
    });
  });
  return setups;
}

CodecSetups SetupSearch::before(i64 position, u64 skip, std::optional<SetupList> list) {
  const auto bounds = stream_.segmentAtPosition(position);
  if (!bounds) return {};
  Keys wanted;
  CodecSetups found = noteSegment(*bounds, skip, &wanted);
  if (bounds->startPosition <= flv::kFirstTagPosition) return found;
  if (!list && !isRemote(stream_.name())) list = SetupList::read(stream_.name());
  found.addOlder(at(bounds->startPosition, wanted, std::move(list)));
  return found;
}

// The module's answers for a place behind damage may lead nowhere.
std::optional<SegmentBounds> SetupSearch::segmentBefore(i64 position) {
  if (position <= 0) return std::nullopt;
  const auto bounds = stream_.segmentAtPosition(position - 1);
  return bounds && bounds->startPosition < position ? bounds : std::nullopt;
}

CodecSetups SetupSearch::at(i64 position, const Keys& frames, std::optional<SetupList> list) {
  CodecSetups head, found;
  if (const auto first = stream_.segmentAtPosition(0)) head = noteSegment(*first, kAll);
  Keys wanted = frames;
  for (const auto& key : head.keys()) wanted.insert(key);
  i64 left = isRemote(stream_.name()) ? kMostRemoteBytesBack : kMostBytesBack;
  for (i64 place = position; !found.hasAll(wanted) && left > 0;) {
    const auto known = known_.find(place);
    if (known != known_.end() && std::includes(known->second.wanted.begin(), known->second.wanted.end(),
                                               wanted.begin(), wanted.end())) {
      found.addOlder(known->second.setups);
      break;
    }
    if (list && list->from < place && place <= list->to) {
      if (takeListed(*list, place, found)) place = list->from;
      list.reset();
      continue;
    }
    const auto bounds = segmentBefore(place);
    if (!bounds) break;
    found.addOlder(noteSegment(*bounds, kAll));
    left -= place - bounds->startPosition;
    place = bounds->startPosition;
  }
  found.addOlder(head);
  if (known_.size() >= kMostKnown) known_.clear();
  known_[position] = {std::move(wanted), found};
  return found;
}

// False, with `found` as it was, if the list isn't true of the file: its last place shows whether it is that
// of another.
bool SetupSearch::takeListed(const SetupList& list, i64 position, CodecSetups& found) const {
  const Descriptor file = Descriptor::open(stream_.name(), O_RDONLY);
  if (!list.places.empty() && !readSetup(file.get(), list.places.back())) return false;
  CodecSetups listed;
  for (auto place = list.places.rbegin(); place != list.places.rend(); ++place) {
    if (place->position >= position || listed.has(place->key())) continue;
    const auto tag = readSetup(file.get(), *place);
    if (!tag) return false;
    listed.note(tag->view());
  }
  found.addOlder(listed);
  return true;
}

}  // namespace orv::host
