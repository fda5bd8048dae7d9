// Holds what the module delivers against the file's own bytes, read by plain means.

#pragma once

#include <deque>
#include <string>
#include <vector>

#include "host/files/ReadOnlyFile.h"
#include "host/module/Session.h"

namespace orv::host {

// Every tag of a segment must arrive once, with the file's type, time and bytes, and in the file's order.
// What the module may do, and the verifier knows:
//   - a tag of time 0 overtakes the aggregate that is open;
//   - a video tag whose frame type is 0 is left out;
//   - a head record is left out, and comes as a media context with the same bytes.
class TagVerifier {
 public:
  // Throws Failure if the file can't be read.
  explicit TagVerifier(const Stream& stream);

  void beginSegment(const SegmentBounds& bounds);
  void check(const Message& message);
  void endSegment();
  // After the last segment of a whole file: each head record must have been met.
  void endFile();

  u64 tags() const { return tags_; }    // That agreed.
  u64 bytes() const { return bytes_; }  // Of theirs in the file, headers and size fields included.
  u64 headRecords() const { return headRecords_; }
  u64 droppedFrames() const { return droppedFrames_; }
  u64 faults() const { return faults_; }
  const std::string& firstFault() const { return firstFault_; }

 private:
  struct FileTag {
    i64 position;
    Tag tag;
  };
  struct Context {
    std::vector<u8> data;
    bool met = false;
  };

  void readSegment(i64 start, i64 end);
  void checkTag(const Tag& tag, bool inAggregate);
  bool mayBeLeftOut(const Tag& tag);
  void fault(const std::string& text);

  const ReadOnlyFile file_;
  i64 firstTag_;
  std::vector<Context> contexts_;
  std::vector<u8> allContexts_;
  std::vector<u8> segment_;
  // Of the segment: the tags still to come, those of time 0 apart.
  std::deque<FileTag> pending_;
  std::deque<FileTag> pendingAtZero_;
  u64 tags_ = 0;
  u64 bytes_ = 0;
  u64 headRecords_ = 0;
  u64 droppedFrames_ = 0;
  u64 faults_ = 0;
  std::string firstFault_;
};

}  // namespace orv::host
