// Where the codec set-up records of a recording stand, if they change behind its head: a small text beside
// the file, NAME.flv.setups, so that a player that starts in the middle needn't look for them.
//
//     flvhost set-ups 1
//     covers 0 48234496                  no others stand between these bytes
//     13 0 49 9 7                        position, time, size of the data, type, codec
//     26026400 400020 51 9 7
//
// It is a hint and no more: whoever uses it looks at the tags themselves.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/flv/CodecSetups.h"

namespace orv::host {

// A set-up record that says something else than the one of its kind before.
struct SetupPlace {
  i64 position;
  u32 time;
  u32 size;  // Of the data.
  u8 type;
  CodecId codec;
  CodecSetups::Key key() const { return {(type & flv::kTypeMask) == flv::kTypeAudio, codec}; }
};

struct SetupList {
  static constexpr std::size_t kMostPlaces = 1000;

  i64 from = 0;  // Whole tags stand from here to before `to`, and all their set-ups that matter are named.
  i64 to = 0;
  std::vector<SetupPlace> places;  // Ascending.

  static std::string fileFor(const std::string& media) { return media + ".setups"; }
  // The one beside `media`. None if there is none, or it makes no sense.
  static std::optional<SetupList> read(const std::string& media);
  // Replaces the one beside `media` at one stroke. Throws Failure; a file that isn't such a list is left
  // alone.
  void write(const std::string& media) const;
  static void remove(const std::string& media);
  static void rename(const std::string& media, const std::string& newName);

  std::string text() const;
  static std::optional<SetupList> parse(const std::string& text);
};

// Reads the tag at a place, whole. None unless it is what the place says.
std::optional<OwnedTag> readSetup(int fd, const SetupPlace& place);

// Goes through the tags of `fd` from `list.to` to before `end`, and notes in `valid` the set-ups that it
// meets and in `list` those that say something new. False, with `list` as it was, if the tags don't follow
// from one another to there.
bool noteSetups(int fd, i64 end, CodecSetups& valid, SetupList& list);

}  // namespace orv::host
