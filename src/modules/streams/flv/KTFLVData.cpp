// The life of a stream: construction, opening, the end.

#include "modules/streams/flv/KTFLVData.h"

#include <cstring>

#include "modules/streams/flv/OpenFile.h"

namespace orv::flv {
KTFLVData::KTFLVData(const KTWideString& path, const FLVConfig& config, const IBackupConnPtr& conn,
                     IQVStreamContext* streamContext, IFileService* service)
    : KTFLVPersist(path + u".flv", conn, service),
      streamPath(path + u".flv"),
      readSize(config.readSize),
      maxFrameScan(config.maxFrameScan),
      maxBackFrameScan(config.maxBackFrameScan),
      playIncompleteFLVs(config.playIncompleteFLVs),
      frameTypes(config.frameTypes),
      enableAggMsgs(config.enableAggMsgs),
      maxAggMsgSize(config.maxAggMsgSize),
      context(streamContext),
      fileBuffer(config.autoBufferReadSize, service),
      badData(streamContext, streamPath, config.retryCorruptedFLVs),
      codecs(config.recordAllCodecs) {}

KTFLVData::~KTFLVData() {
  KTFLVPersist::close();
}

bool KTFLVData::open(u32 mode) {
  constexpr u32 kForRecording = 1;
  if (mode & kForRecording) return openForRecord();
  const BlockRelease idle(fileBuffer);  // Many streams are opened and never loaded.
  const ReadHandle file(fileService(), narrowPath().c_str());
  return file.isOpen() && checkHeader(file.fd()) && scan(file.fd());
}

bool KTFLVData::checkHeader(int fd) {
  if (fd == -1) return false;
  FileStat record{};
  if (fileService()->fstat(fd, &record, 0) != 0) return false;
  if (record.size == 0) return true;
  dropStaleBlock(static_cast<u32>(record.modificationTime));
  u8 bytes[4];
  const u32 got = fileBuffer.readSome(fd, 0, bytes, sizeof bytes, autofilebuffer::forward);
  return got == sizeof bytes && std::memcmp(bytes, "FLV\x01", sizeof bytes) == 0;
}

// `format` takes the stream's path.
void KTFLVData::logPath(const char16_t* format, int level) {
  KTWideString text;
  text.format(format, streamPath.c_str());
  context->logMessage(toNarrow(text).c_str(), level, 1);
}

bool KTFLVData::erase() {
  const KTMutexGuard lock(mutex);
  const bool closed = close();
  return unlink() && closed;
}

void KTFLVData::setBackupConn(const IBackupConnPtr& conn) {
  const KTMutexGuard lock(mutex);
  KTFLVPersist::setBackupConn(conn);
}

bool KTFLVData::getMediaContexts(ContextType_t type, i64 position, IContextHolder* holder) {
  if (type != ContextTypeBefore) return false;
  return headRecords.contexts().forEach(type, position, [holder](const MediaContext& record) {
    if (!KT_HOLDS(holder != nullptr)) return;
    holder->onContext(record.messageType, record.buffer.data, record.buffer.size, record.time,
                      record.position, record.trackID, record.contextType);
  });
}

bool KTFLVData::getAllMediaContexts(IAllContextHolder* holder) {
  KTBuffer buffer;
  if (!KT_HOLDS(holder != nullptr) || !headRecords.contexts().serialize(buffer)) return false;
  holder->onAllContexts(buffer.data, buffer.size);
  return true;
}

u32 KTFLVData::getMemoryOverhead() const {
  const KTMessagePtr& metadata = headRecords.metadata();
  const u64 bytes = (recording ? recording->capacity() : 0) + u64{segmentCount} * sizeof(SegmentRange) +
                    sizeof(KTFLVData) + headRecords.contexts().byteSize() +
                    (metadata ? metadata->length() : 0);
  return static_cast<u32>(bytes);
}

}  // namespace orv::flv
