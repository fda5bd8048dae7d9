// The face of a storage module. A host gets one from IQVCreateAdaptor and deletes it at the end.

#pragma once

#include "modules/streams/contract/IQVStreamContext.h"
#include "modules/streams/contract/Sinks.h"

// A segment of a file as the host sees it. Times are in milliseconds.
struct SegmentBounds {
  i64 startPosition;  // First byte; 0 for a file's first segment, which covers the file header too.
  i64 endPosition;    // Last byte, inclusive.
  u32 startTime;      // Time of the segment's first tag.
  u32 endTime;  // Time of the tag that starts the next segment; of the last tag plus 1 at the file's end.
};

enum StreamLoadStatus : u32 { StreamLoadOk = 0, StreamLoadFailed = 1 };

enum AttrType_t : u32 {
  AttrModifiedTime = 1,  // u32
  AttrDuration = 2,      // u32, milliseconds
  AttrSize = 3,          // i64, bytes; `size` must be 8 or more, else it becomes 8 and the answer is false
  AttrMetaData = 4,  // The payload of "onMetaData"; `size` becomes its length, or 0 where the answer is false
};

enum ContextType_t : u32 { ContextTypeBefore = 1, ContextTypeAfter = 2 };

// Positions are bytes from the start of the file, times milliseconds. A handle names one opened stream; one
// stream is driven from one place at a time, with the exception of record, flushSegment, erase and
// setUserData, which lock. Different streams may be used from different threads at once. A bad or short file
// gives a result, never an exception; exceptions of the host's own sinks pass through.
class ORV_EXPORT IQVStreamAdaptor {
  ORV_INTERFACE_MEMBERS(IQVStreamAdaptor)

  ORV_MEMBER virtual ~IQVStreamAdaptor() {}
  virtual u32 getVersion() const = 0;
  // `path` is UTF-8, with backslashes and without ".flv", which is always appended. Bit 0 of `mode`: open for
  // recording. `userData` is an orv::IBackupConn* or null. On failure `handle` is left alone.
  virtual StreamLoadStatus open(const char* path, u32 mode, void* userData, void*& handle) = 0;
  virtual void setUserData(void* handle, void* userData) = 0;
  virtual void close(void* handle) = 0;  // Flushes nothing.
  virtual bool erase(void* handle) = 0;
  virtual u32 getMemoryOverhead(void* handle) const = 0;
  virtual u32 getDuration(void* handle) const = 0;
  virtual i64 getSize(void* handle) const = 0;
  virtual i64 getEndPosition(void* handle) const = 0;
  virtual u32 getType(void* handle) const = 0;
  // `index` is a byte position.
  virtual bool findSegmentByIndex(void* handle, i64 index, SegmentBounds* bounds) = 0;
  virtual bool findSegmentByTime(void* handle, u32 time, SegmentBounds* bounds) = 0;
  virtual bool loadSegment(void* handle, SegmentBounds* bounds, ISegmentHolder* holder) = 0;
  virtual void onFreeSegment(void* handle, u32 segment) = 0;
  virtual bool record(void* handle, unsigned short type, const void* data, u32 size, u32 time) = 0;
  virtual bool flushSegment(void* handle, SegmentBounds* bounds) = 0;
  virtual u32 getPermission() const = 0;
  virtual bool getAttribute(void* handle, AttrType_t attribute, void* value, u32& size) const = 0;
  virtual bool getMediaContexts(void* handle, ContextType_t type, i64 position,
                                IContextHolder* holder) const = 0;
  virtual bool getAllMediaContexts(void* handle, IAllContextHolder* holder) const = 0;
};

// The module's one entry: 1 and an adaptor, or 0 and null. `context` must outlive the adaptor.
extern "C" ORV_EXPORT int IQVCreateAdaptor(IQVStreamContext* context, IQVStreamAdaptor** adaptor);
