// What is recorded between the opening of a file and its flush.

#pragma once

#include "modules/streams/flv/FrameRecord.h"
#include "modules/streams/flv/HeadRecords.h"
#include "modules/streams/flv/KTFLVPersist.h"
#include "modules/streams/flv/RecordBuffer.h"
#include "modules/streams/flv/RecordedCodecs.h"

namespace orv::flv {

// What a flush hands to the reading side.
struct FlushedTags {
  // The place of the first new tag, which is the old end of the tags, at the time of the last old one.
  FrameRecord start;
  i64 end;      // Of the tags, if all of them reached the file.
  u8 flags;     // Their kinds.
  u32 maxTime;  // Their highest.

  bool isEmpty() const { return end == start.position; }
};

// Made when a stream opens its file for recording, dropped by the flush. Used under the stream's lock.
class Recording {
 public:
  // Takes the staging memory, with `room` bytes of it warm. Throws std::bad_alloc; nothing can be staged
  // then.
  void start(u32 room) { buffer_.restart(room); }
  // Appends the message as a tag. False, with nothing changed, if there is no memory for it or it is too long
  // for a tag.
  bool stage(const RecordedMessage& message);
  // For a data message of time 0, about to be staged: if it is an "onMetaData" it becomes the stream's, with
  // a place that the flush will fill in. Asks the host for the file's end. False if it is none; throws
  // KTBreakConnection if it can't be parsed.
  bool noteMetadata(const RecordedMessage& message, KTFLVPersist& file, HeadRecords* head);

  // Writes what isn't in the file yet behind `fileEnd`, where the write position stands, and gives the noted
  // metadata its place. `tagsEnd` and `duration` are those of the file before; a flush that is tried again
  // keeps those of its first try.
  FlushedTags append(KTFLVPersist& file, i64 fileEnd, i64 tagsEnd, u32 duration, HeadRecords* head);
  // Whether tags have been written by a flush that isn't done yet.
  bool isFlushing() const { return isFlushing_; }
  // Where the file ends behind what has been written.
  i64 fileEnd() const { return fileEnd_; }

  u32 capacity() const { return buffer_.size; }

 private:
  RecordBuffer buffer_;
  KTMessagePtr metadata_{nullptr};  // Noted here; its tag's place in the buffer.
  u32 metadataOffset_ = 0;

  // The file's state before the flush, and how much of the buffer is written.
  bool isFlushing_ = false;
  i64 oldTagsEnd_ = 0;
  u32 oldDuration_ = 0;
  u32 written_ = 0;
  i64 fileEnd_ = 0;
};

}  // namespace orv::flv
