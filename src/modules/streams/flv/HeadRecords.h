// The records at a file's head: data tags at time 0 in front of the media, which describe the stream.

#pragma once

#include <functional>
#include <set>
#include <string_view>

#include "modules/streams/flv/MediaContextStore.h"
#include "server/KTMessage.h"
#include "util/autofilebuffer.h"

class KTCommand;

namespace orv::flv {

inline constexpr std::string_view kMetaDataName = "onMetaData";

// The head records as of the last scan, kept apart for the host, and the stream's "onMetaData", which may
// still be staged. Has no lock: see KTFLVData.
class HeadRecords {
 public:
  // The tags of an open file from `begin` to `end`, to be read through `buffer`.
  struct Tags {
    autofilebuffer& buffer;
    int fd;
    i64 begin;
    i64 end;
  };

  // Rebuilds all but the side positions, of which it drops those whose tags are no head records. Calls
  // `onBadRecord` for each data tag that can't be parsed.
  void scan(const Tags& tags, const std::function<void()>& onBadRecord);
  // Forgets everything, for a new file.
  void clear();

  // Whether the tag there is held as a media context, so that a load leaves it out.
  bool isSidePosition(i64 position) const { return sidePositions_.contains(position); }
  const MediaContextStore& contexts() const { return contexts_; }

  // The first "onMetaData"; null while there is none.
  const KTMessagePtr& metadata() const { return metadata_; }
  i64 metadataPosition() const { return metadataPosition_; }  // Of its tag; -1: it has no place in the file.
  void setMetadata(const KTMessagePtr& message, i64 position);
  void forgetMetadata() { setMetadata(KTMessagePtr(nullptr), -1); }

  // The kind of record that bears this name, as a context's `trackID`; 0 if it is no head record.
  static u32 classifyRecord(std::string_view name);

 private:
  void considerRecord(const KTMessagePtr& message, i64 position);
  void storeHeadRecord(const KTCommand& command, const KTMessagePtr& message, i64 position);
  void addMediaContext(u32 time, u8 type, const u8* data, u32 size, u32 trackID);

  MediaContextStore contexts_;
  std::set<i64> sidePositions_;
  KTMessagePtr metadata_{nullptr};
  i64 metadataPosition_ = -1;
};

}  // namespace orv::flv
