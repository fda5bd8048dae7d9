// One FLV file behind the host's opaque handle.

#pragma once

#include <bitset>
#include <list>
#include <set>

#include "modules/streams/contract/IQVStreamAdaptor.h"
#include "modules/streams/flv/FLVConfig.h"
#include "modules/streams/flv/FrameRecord.h"
#include "modules/streams/flv/KTFLVPersist.h"
#include "modules/streams/flv/MediaContextStore.h"
#include "modules/streams/flv/RecordBuffer.h"
#include "modules/streams/flv/SearchWindow.h"
#include "server/KTMessage.h"
#include "util/KTFiberMutex.h"
#include "util/autofilebuffer.h"

class KTCommand;
class KTData;

namespace orv::flv {

// Everything that is known about one file: where its tags begin and end, its duration, the segments met so
// far, the read cache and a copy of the settings. Two objects on one path share only the file; a player
// learns of a recorder's work by the file's modification time alone.
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
  u32 getModifiedTime() const;  // Low 32 bits; 0 if the host can't tell.
  // These compare the file's modification time with that of the last scan and, on a change, look again.
  i64 getSize();
  i64 getEndPosition();
  u32 getDuration();
  KTMessagePtr getMetaData();  // The first "onMetaData"; null if there is none or the file can't be read.
  u8 getType() const { return typeFlags; }
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
  // can't be told or its flags can't be written; false after all of it if the file then can't be read.
  bool flushSegment(SegmentBounds* bounds);

  // The frame that holds `position`, in `range`. Takes the caller's open descriptor.
  bool findFrameAtOrBefore(i64 position, FrameRecord* frame, SegmentRange range, int fd);

 private:
  friend class SegmentLoader;
  using IndexIterator = std::list<SegmentRange>::iterator;

  // Opening (KTFLVData.cpp)
  bool checkHeader(int fd);
  void dropStaleBlock(u32 modifiedTime);
  void logPath(const char16_t* format, int level);
  static IFileService* fileService();

  // Tag scan
  void readFirstFrame(int fd);

  // Head records
  static u32 classifyRecord(std::string_view name);
  void scanHeadRecords(int fd);
  bool readTagHeader(int fd, i64 position, u8* bytes);
  KTMessagePtr readTagMessage(int fd, i64 position);
  void considerHeadRecord(const KTMessagePtr& message, i64 position);
  void storeHeadRecord(const KTCommand& command, const KTMessagePtr& message, i64 position);
  void addMediaContext(u32 time, u8 type, const u8* data, u32 size, u32 trackID);

  // Frame scan
  bool readFrameHeader(FrameSource& source, i64 position, FrameRecord* frame);
  bool checkForward(FrameSource& source, i64 position);
  bool checkBackward(FrameSource& source, i64 position);
  bool validateFrame(FrameSource& source, i64 position, FrameRecord* frame);
  bool couldFollow(u32 previousSize, i64 position) const;
  i64 likelyCandidate(const SearchWindow::View& view, i64 highest, i64 lowest) const;
  bool searchBack(i64 position, FrameRecord* frame, const SegmentRange& range, int fd, u32 limit);
  bool searchDown(SearchWindow& window, i64 highest, i64 lowest, const SegmentRange& range,
                  FrameRecord* frame);
  bool findInView(SearchWindow& window, const SearchWindow::View& view, i64 highest, i64 lowest,
                  FrameRecord* frame);
  bool findLastFrame(int fd, FrameRecord* frame);
  void locateEnd(int fd);
  bool badDataUsedUp() const;
  void reportBadData(const char* file = __builtin_FILE(), int line = __builtin_LINE());

  // Segment index
  SegmentRange wholeFile() const { return {firstFrame, lastFrame}; }
  bool searchIndexByTime(u32 time, SegmentRange* range, IndexIterator* hint);
  bool searchIndexByPosition(i64 position, SegmentRange* range, IndexIterator* hint);
  void anchorAtOldEnd(int fd, SegmentRange* range);
  bool seekSegmentByTime(u32 time, SegmentRange* range, int fd, IndexIterator hint);
  bool buildSegment(i64 position, SegmentRange* range, int fd, IndexIterator hint);
  bool insertSegment(const SegmentRange& range, IndexIterator hint);
  void endIndexAt(const FrameRecord& start);

  // Record path and flush, all under `mutex`
  struct RecordedMessage {
    u8 type;  // The low 8 bits of the host's.
    const u8* data;
    u32 size;
    u32 time;
  };
  bool writeFileHeader();
  bool checkCodec(const RecordedMessage& message);
  void warnOnce(bool* due, const char16_t* format);
  void noteCodecs(const RecordedMessage& message);
  bool noteMetadata(const RecordedMessage& message);
  void forgetMetadata();
  static KTMessagePtr parseMetadata(const RecordedMessage& message);
  FrameRecord appendStagedTags(i64 fileEnd);
  bool writeTypeFlags();
  bool rewriteMetadata();
  KTMessagePtr updatedMetadata() const;
  bool updateValue(const KTString& key, bool amf3, KTData* value) const;

  KTFiberMutex mutex;
  bool recordOpen = false;
  i64 dataEnd = 0;   // End of the last whole tag. During a scan, the size of the file.
  u32 duration = 0;  // Time of the last tag.
  u32 scanTime = 0;  // Modification time at the last scan.
  u8 typeFlags = 0;  // Byte 4 of the file.
  KTWideString streamPath;
  u32 badDataCount = 0;
  FrameRecord firstFrame;
  FrameRecord lastFrame;  // Behind the last tag: its time is one more than that tag's.
  u32 segmentCount = 0;   // For the memory estimate only.

  // Settings, see FLVConfig.
  u32 readSize;
  u32 maxFrameScan;
  u32 maxBackFrameScan;
  bool playIncompleteFLVs;
  i32 retryCorruptedFLVs;
  std::bitset<256> frameTypes;
  bool enableAggMsgs;
  u32 maxAggMsgSize;

  std::set<i64> sidePositions;  // Tags that are held as media contexts and left out of a load.
  // Segments found so far, in file order, without overlap. Where two touch, the earlier one's `last` is the
  // later one's `first`, or stays the mark of the old end if the file has grown behind it: what the host was
  // told doesn't change. Between others lies what no search has visited yet.
  std::list<SegmentRange> segmentIndex;
  autofilebuffer fileBuffer;
  u32 bufferTime =
      0;  // All that fileBuffer holds was read when the file had this modification time, or later.
  IQVStreamContext* context;
  MediaContextStore mediaContexts;

  // The recording.
  bool warnH264 = true;  // Until it has been logged.
  bool warnAAC = true;
  RecordBuffer recordBuffer;
  u32 videoCodec = 0;  // Of the first message seen; 0: none yet.
  u32 audioCodec = 0;
  bool lastVideoKey = false;
  KTMessagePtr metadata{nullptr};
  i64 metadataPosition = -1;  // Of its tag; -1: it has no place in the file.
  // A flush under way, or one that wrote its tags and then failed: the file's state before it, how much of
  // the buffer is written, and where the file ends with that.
  struct UnfinishedFlush {
    bool pending = false;
    i64 dataEnd = 0;
    u32 duration = 0;
    u32 written = 0;
    i64 fileEnd = 0;
  } unfinishedFlush;
};

// The file of a stream, open for reading for as long as this lives.
class ReadHandle {
 public:
  ReadHandle(IFileService* service, const char* path)
      : service_(service), fd_(service->open(path, openflags::readOnly, openflags::ownerReadWrite, 0)) {}
  ~ReadHandle() {
    if (isOpen()) service_->close(fd_, 0);
  }
  ReadHandle(const ReadHandle&) = delete;
  ReadHandle& operator=(const ReadHandle&) = delete;

  bool isOpen() const { return fd_ != -1; }
  int fd() const { return fd_; }

 private:
  IFileService* service_;
  int fd_;
};

}  // namespace orv::flv
