#include "modules/streams/flv/FLVAdaptor.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "modules/streams/flv/KTFLVData.h"

namespace orv::flv {
namespace {

KTFLVData* streamOf(void* handle) {
  return static_cast<KTFLVData*>(handle);
}

bool copyMetaData(const KTMessagePtr& message, void* value, u32& size) {
  if (!message || message->length() > size) {
    size = 0;
    return false;
  }
  size = message->length();
  if (size > 0) std::memcpy(value, message->memory->data, size);
  return true;
}

}  // namespace

FLVAdaptor::FLVAdaptor(IQVStreamContext* streamContext) : context(streamContext) {
  FLVAdaptor::config();
}
FLVAdaptor::FLVAdaptor(const FLVAdaptor& other) = default;
FLVAdaptor& FLVAdaptor::operator=(const FLVAdaptor& other) = default;
FLVAdaptor::~FLVAdaptor() = default;

u32 FLVAdaptor::getVersion() const {
  return 0x100;
}
u32 FLVAdaptor::getPermission() const {
  return 6;
}

StreamLoadStatus FLVAdaptor::open(const char* path, u32 mode, void* userData, void*& handle) {
  try {
    const IBackupConnPtr conn(static_cast<IBackupConn*>(userData));
    auto stream = std::make_unique<KTFLVData>(toWide(KTString(path)), configuration, conn, context,
                                              context->getFileService());
    if (!stream->open(mode)) return StreamLoadFailed;
    handle = stream.release();
    return StreamLoadOk;
  } catch (const std::bad_alloc&) {
    return StreamLoadFailed;
  } catch (const KTOutOfMemory&) {
    return StreamLoadFailed;  // A path longer than any text.
  }
}

void FLVAdaptor::setUserData(void* handle, void* userData) {
  if (!handle) return;
  streamOf(handle)->setBackupConn(IBackupConnPtr(static_cast<IBackupConn*>(userData)));
}

void FLVAdaptor::close(void* handle) {
  delete streamOf(handle);
}
bool FLVAdaptor::erase(void* handle) {
  return streamOf(handle)->erase();
}

u32 FLVAdaptor::getMemoryOverhead(void* handle) const {
  return streamOf(handle)->getMemoryOverhead();
}
u32 FLVAdaptor::getDuration(void* handle) const {
  return streamOf(handle)->getDuration();
}
i64 FLVAdaptor::getSize(void* handle) const {
  return streamOf(handle)->getSize();
}
i64 FLVAdaptor::getEndPosition(void* handle) const {
  return streamOf(handle)->getEndPosition();
}
u32 FLVAdaptor::getType(void* handle) const {
  return streamOf(handle)->getType();
}

bool FLVAdaptor::findSegmentByIndex(void* handle, i64 index, SegmentBounds* bounds) {
  SegmentRange range;
  if (!streamOf(handle)->findSegmentByIndex(index, &range)) return false;
  streamOf(handle)->toBounds(range, bounds);
  return true;
}

bool FLVAdaptor::findSegmentByTime(void* handle, u32 time, SegmentBounds* bounds) {
  SegmentRange range;
  if (!streamOf(handle)->findSegmentByTime(time, &range)) return false;
  streamOf(handle)->toBounds(range, bounds);
  return true;
}

bool FLVAdaptor::loadSegment(void* handle, SegmentBounds* bounds, ISegmentHolder* holder) {
  return streamOf(handle)->loadSegment(*bounds, holder);
}

// A load leaves nothing behind.
void FLVAdaptor::onFreeSegment(void*, u32) {}

bool FLVAdaptor::record(void* handle, unsigned short type, const void* data, u32 size, u32 time) {
  return streamOf(handle)->record(type, data, size, time);
}

bool FLVAdaptor::flushSegment(void* handle, SegmentBounds* bounds) {
  return streamOf(handle)->flushSegment(bounds);
}

bool FLVAdaptor::getAttribute(void* handle, AttrType_t attribute, void* value, u32& size) const {
  KTFLVData* const stream = streamOf(handle);
  switch (attribute) {
    case AttrModifiedTime: {
      const u32 time = stream->getModifiedTime();
      std::memcpy(value, &time, sizeof time);
      return true;
    }
    case AttrDuration: {
      const u32 duration = stream->getDuration();
      std::memcpy(value, &duration, sizeof duration);
      return true;
    }
    case AttrSize: {
      if (size < sizeof(i64)) {
        size = sizeof(i64);
        return false;
      }
      const i64 bytes = stream->getSize();
      std::memcpy(value, &bytes, sizeof bytes);
      return true;
    }
    case AttrMetaData:
      return copyMetaData(stream->getMetaData(), value, size);
  }
  return false;
}

bool FLVAdaptor::getMediaContexts(void* handle, ContextType_t type, i64 position,
                                  IContextHolder* holder) const {
  return streamOf(handle)->getMediaContexts(type, position, holder);
}

bool FLVAdaptor::getAllMediaContexts(void* handle, IAllContextHolder* holder) const {
  return streamOf(handle)->getAllMediaContexts(holder);
}

}  // namespace orv::flv

int IQVCreateAdaptor(IQVStreamContext* context, IQVStreamAdaptor** adaptor) {
  *adaptor = nullptr;
  try {
    *adaptor = new orv::flv::FLVAdaptor(context);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return 1;
}
