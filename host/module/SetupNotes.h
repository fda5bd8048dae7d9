// Notes where the codec set-up records of a recording stand, and keeps the list beside its file where they
// change behind the head.

#pragma once

#include <string>

#include "host/files/Descriptor.h"
#include "host/module/SetupList.h"

namespace orv::host {

// What can't be written is reported once, and there is no list then: the recording goes on.
class SetupNotes {
 public:
  // Of the file that is recorded next, which `file` reads: `valid` hold at its end. A list beside it is gone
  // on with if it is true of the file, else removed.
  void begin(std::string media, const Descriptor& file, const CodecSetups& valid);
  // Before the flush that writes it.
  void staged(const Tag& tag) { hasNews_ |= staged_.note(tag); }
  // After a flush. The list is renewed if it says something new, or the file has grown a good deal.
  void flushed(const Descriptor& file);
  // Last. The file has `name` by now; empty: none.
  void end(const std::string& name);

  // As of the last flush.
  const SetupList& list() const { return list_; }

 private:
  void goOnWith(const Descriptor& file, i64 size);
  void admitNews(std::size_t before);
  void save();

  std::string media_;
  CodecSetups staged_;   // As of the last tag,
  CodecSetups flushed_;  // and of the last flush.
  bool hasNews_ = false;
  SetupList list_;
  bool isWanted_ = false;  // Something changes behind the head.
  bool isOver_ = false;    // Nothing more is noted.
  bool isSaved_ = false;   // A list of ours stands beside the file,
  i64 savedTo_ = 0;        // covering so much.
};

}  // namespace orv::host
