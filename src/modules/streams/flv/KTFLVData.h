// One FLV file behind the host's opaque handle.

#pragma once

#include <optional>

#include "modules/streams/contract/IQVStreamAdaptor.h"
#include "modules/streams/flv/FLVConfig.h"
#include "modules/streams/flv/FileSummary.h"
#include "modules/streams/flv/HeadRecords.h"
#include "modules/streams/flv/KTFLVPersist.h"
#include "modules/streams/flv/RecordedCodecs.h"
#include "modules/streams/flv/Recording.h"
#include "modules/streams/flv/SegmentIndex.h"
#include "util/KTFiberMutex.h"
#include "util/autofilebuffer.h"

namespace orv::flv {

// Everything that is known about one file: its summary, its head records, the segments met so far, the read
// cache and a copy of the settings. Two objects on one path share only the file; a player learns of a
// recorder's work by the file's modification time alone.
//
// The record side (record, flushSegment, erase, setBackupConn) locks `mutex`. The read side takes no lock:
// the host calls it from one place at a time, and not during a flush of the same stream. A stream holds no
// descriptor between calls of the read side.
class KTFLVData : public KTFLVPersist {
 public:
  // `path` is without its ".flv". Does no file work. The context and the service must outlive the stream.
  KTFLVData(const KTWideString& path, const FLVConfig& config, const IBackupConnPtr& conn,
            IQVStreamContext* context, IFileService* service);
  ~KTFLVData() override;

  // Bit 0 of `mode`: for recording. False if the file can't be opened, isn't FLV version 1 or can't be
  // scanned.
  bool open(u32 mode);
  using KTFLVPersist::open;
  bool openForRecord();
  bool erase();
  void setBackupConn(const IBackupConnPtr& conn);

  // Summarises the file. False if it can't be read or its first tag is none; what was found until then stays.
  bool scan(int fd);
  u32 getModifiedTime() const;  // Low 32 bits; 0 if the host doesn't know it.
  // These compare the file's modification time with that of the last scan and, on a change, look again.
  i64 getSize();
  i64 getEndPosition();
  u32 getDuration();
  KTMessagePtr getMetaData();  // The first "onMetaData"; null if there is none or the file can't be read.
  u8 getType() const { return summary.typeFlags; }
  u32 getMemoryOverhead() const;

  // The segment that holds a time, or a byte position. What is found stays in the index.
  bool findSegmentByTime(u32 time, SegmentRange* range);
  bool findSegmentByIndex(i64 index, SegmentRange* range);
  void toBounds(const SegmentRange& range, SegmentBounds* bounds) const;
  // Delivers the tags of a byte run, one by one or in aggregates, on the caller's thread.
  bool loadSegment(const SegmentBounds& bounds, ISegmentHolder* holder);

  // The head records, from the last scan. False if there is nothing to deliver.
  bool getMediaContexts(ContextType_t type, i64 position, IContextHolder* holder);
  bool getAllMediaContexts(IAllContextHolder* holder);

  // Stages one message as a tag; nothing but a new file's header reaches the file before the flush. False
  // only if the file couldn't be opened for recording. A message that FLV can't carry here, or that there is
  // no memory for, is dropped. A data message of time 0 that can't be parsed, while no metadata is known,
  // throws KTBreakConnection; std::bad_alloc may come too. Nothing is staged then, and no lock left.
  bool record(u16 type, const void* data, u32 size, u32 time);
  // Appends what is staged, brings the header's flags and the metadata up to date and closes the file.
  // `bounds` is set if all went that far. False, with what is staged kept, if the file isn't open, its end
  // isn't known or its flags can't be written; false after all of it if the file then can't be read.
  bool flushSegment(SegmentBounds* bounds);

  // The frame that holds `position`, in `range`. Takes the caller's open descriptor.
  bool findFrameAtOrBefore(i64 position, FrameRecord* frame, SegmentRange range, int fd);

 private:
  // Opening (KTFLVData.cpp)
  bool checkHeader(int fd);
  void logPath(const char16_t* format, int level);

  // Refresh
  bool dropStaleBlock(u32 stamp);
  SummaryScan summaryScan(int fd);
  bool indexFitsFile(SummaryScan& scanned, const FrameRecord& oldFirst) const;

  // Searches
  FrameFinder frameFinder(int fd);

  // Record path and flush, all under `mutex`
  bool openAndScan();
  bool isNameless() const;
  void forgetFile();
  bool writeFileHeader();
  // While it does, the index ends where the flush is going to enter its tags.
  bool awaitsFlush() const { return recording && recording->isFlushing(); }
  void takeIn(const FlushedTags& flushed);
  bool writeTypeFlags();
  void rewriteMetadata(int file);
  bool metadataIsInPlace(int file);

  KTFiberMutex mutex;

  // Set once. The settings are those of FLVConfig.
  KTWideString streamPath;
  u32 readSize;
  u32 maxFrameScan;
  u32 maxBackFrameScan;
  bool playIncompleteFLVs;
  FrameTypes frameTypes;
  bool enableAggMsgs;
  u32 maxAggMsgSize;
  IQVStreamContext* context;

  // What both sides use, read by the read side without a lock. The record side writes it under `mutex`: all
  // of it when openForRecord or a flush scans the file, the metadata of `headRecords` in `record` too. The
  // host keeps the calls of the read side, whose queries write it when the file has changed, apart from
  // those.
  FileSummary summary;
  HeadRecords headRecords;
  SegmentIndex segmentIndex;
  u32 segmentCount = 0;  // For the memory estimate only.
  autofilebuffer fileBuffer;
  u32 bufferStamp = 0;  // All that fileBuffer holds was read when the file had this stamp, or later.
  BadDataReports badData;

  // Used under `mutex`. Only getMemoryOverhead looks at `recording` without it.
  RecordedCodecs codecs;
  std::optional<Recording> recording;  // From the moment that openForRecord has started until the flush.
  u32 stagedBefore = 0;                // Room that the last interval took.
};

}  // namespace orv::flv
