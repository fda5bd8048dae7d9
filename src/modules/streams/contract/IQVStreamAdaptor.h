// The face of a storage module. A host gets one from IQVCreateAdaptor and deletes it at the end.

#pragma once

#include "modules/streams/contract/IQVStreamContext.h"
#include "modules/streams/contract/Sinks.h"

// A segment of a file as the host sees it. Times are in milliseconds.
struct SegmentBounds {
  orv::i64 startPosition;  // First byte; 0 for a file's first segment, which covers the file header too.
  orv::i64 endPosition;    // Last byte, inclusive.
  // Time of the segment's first tag. From a flush: of the last tag before it.
  orv::u32 startTime;
  // Time of the tag that starts the next segment; at the file's end, of the last tag plus 1.
  orv::u32 endTime;
};

enum StreamLoadStatus : orv::u32 { StreamLoadOk = 0, StreamLoadFailed = 1 };

enum AttrType_t : orv::u32 {
  AttrModifiedTime = 1,  // u32
  AttrDuration = 2,      // u32, milliseconds
  AttrSize = 3,          // i64, bytes; `size` must be 8 or more, else it becomes 8 and the answer is false
  AttrMetaData = 4,  // The payload of "onMetaData"; `size` becomes its length, or 0 where the answer is false
};

enum ContextType_t : orv::u32 { ContextTypeBefore = 1, ContextTypeAfter = 2 };

// Positions are bytes from the start of the file, times milliseconds. A handle names one opened stream.
//
// Different streams may be used from different threads at once. One stream is driven from one place at a
// time: its reading calls take no lock, and none of them may run beside a record, flushSegment, erase or
// setUserData of the same stream. These four lock the stream, so that several threads may record into one
// while another flushes it.
//
// A bad or short file gives a result; only `record` throws over content. Exceptions of the host's own sinks
// and std::bad_alloc pass through. Only close and setUserData take a null handle.
class ORV_EXPORT IQVStreamAdaptor {
  ORV_INTERFACE_MEMBERS(IQVStreamAdaptor)

  ORV_MEMBER virtual ~IQVStreamAdaptor() {}
  virtual orv::u32 getVersion() const = 0;  // 0x100

  // `path` is UTF-8, with backslashes and without ".flv", which is always appended. Bit 0 of `mode`: open for
  // recording, which makes the file and its header if there is none. `userData` is an orv::IBackupConn* or
  // null. On failure `handle` is left alone.
  virtual StreamLoadStatus open(const char* path, orv::u32 mode, void* userData, void*& handle) = 0;
  // Attaches an orv::IBackupConn* for the rest of the stream's life: counts it, sends it a copy of the whole
  // file and from then on every write. Null, and a second connection, change nothing.
  virtual void setUserData(void* handle, void* userData) = 0;
  virtual void close(void* handle) = 0;  // Flushes nothing.
  virtual bool erase(void* handle) = 0;  // Deletes the file. The handle must still be closed.
  virtual orv::u32 getMemoryOverhead(void* handle) const = 0;  // An estimate, in bytes.

  // Scan the file again if its modification time has changed since the last scan. Return 0 if it can't be
  // read any more. No other call notices that a file has grown.
  virtual orv::u32 getDuration(void* handle) const = 0;     // Time of the last tag.
  virtual orv::i64 getSize(void* handle) const = 0;         // Up to the end of the last whole tag.
  virtual orv::i64 getEndPosition(void* handle) const = 0;  // The same, but 0 for a file without a tag.
  // Byte 4 of the file: 1 has video, 4 has audio; a recording adds 8 for tags of other types.
  virtual orv::u32 getType(void* handle) const = 0;

  // Find the segment that holds a byte position (`index`) or a time. Return false, with `bounds` untouched,
  // if there is none or the tags around it can't be recognised.
  virtual bool findSegmentByIndex(void* handle, orv::i64 index, SegmentBounds* bounds) = 0;
  virtual bool findSegmentByTime(void* handle, orv::u32 time, SegmentBounds* bounds) = 0;
  // Delivers the tags between the two positions; ignores the times. Returns false if it had to stop before
  // the end: what has been delivered until then is sound.
  virtual bool loadSegment(void* handle, SegmentBounds* bounds, ISegmentHolder* holder) = 0;
  virtual void onFreeSegment(void* handle, orv::u32 segment) = 0;  // Does nothing.

  // Stages one message; copies the data. Returns true also for what is refused or dropped (H.264 and AAC
  // unless "RecordCodecs" is "all", more than 16,777,215 bytes); false if the file couldn't be opened for
  // recording. A data message of time 0 that can't be parsed, while the stream has no "onMetaData" yet,
  // throws KTBreakConnection: nothing is staged and no lock is held then.
  virtual bool record(void* handle, unsigned short type, const void* data, orv::u32 size, orv::u32 time) = 0;
  // Writes what is staged, and sets `bounds` to the new bytes on true. See docs/recording.md for each
  // failure.
  virtual bool flushSegment(void* handle, SegmentBounds* bounds) = 0;

  virtual orv::u32 getPermission() const = 0;  // 6: plays and records.
  virtual bool getAttribute(void* handle, AttrType_t attribute, void* value, orv::u32& size) const = 0;

  // Delivers the head records of the last scan one by one: of each kind the one in effect at `position`. Only
  // those of ContextTypeBefore exist, from position 0 on. Returns true if there was one.
  virtual bool getMediaContexts(void* handle, ContextType_t type, orv::i64 position,
                                IContextHolder* holder) const = 0;
  // Delivers all of them in one piece. Returns false, with no call, if there is none.
  virtual bool getAllMediaContexts(void* handle, IAllContextHolder* holder) const = 0;
};

// Makes the module's adaptor and returns 1; returns 0, with null, on failure. `context` must outlive the
// adaptor.
extern "C" ORV_EXPORT int IQVCreateAdaptor(IQVStreamContext* context, IQVStreamAdaptor** adaptor);
