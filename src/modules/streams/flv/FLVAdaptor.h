// The module's face: one object that makes streams and forwards to them.

#pragma once

#include "modules/streams/contract/IQVStreamAdaptor.h"
#include "modules/streams/flv/FLVConfig.h"

namespace orv::flv {

// Holds the settings and no per-file state: a handle is the stream itself, and the adaptor keeps no list of
// them. It has no lock; the settings are constant once constructed, so that `open` may run on several threads
// at once.
class ORV_EXPORT FLVAdaptor : public IQVStreamAdaptor {
 public:
  // Reads all settings. Borrows the context, which must outlive the adaptor and its streams.
  explicit FLVAdaptor(IQVStreamContext* context);
  FLVAdaptor(const FLVAdaptor& other);
  FLVAdaptor& operator=(const FLVAdaptor& other);
  ~FLVAdaptor() override;

  u32 getVersion() const override;
  StreamLoadStatus open(const char* path, u32 mode, void* userData, void*& handle) override;
  void setUserData(void* handle, void* userData) override;
  void close(void* handle) override;
  bool erase(void* handle) override;
  u32 getMemoryOverhead(void* handle) const override;
  u32 getDuration(void* handle) const override;
  i64 getSize(void* handle) const override;
  i64 getEndPosition(void* handle) const override;
  u32 getType(void* handle) const override;
  bool findSegmentByIndex(void* handle, i64 index, SegmentBounds* bounds) override;
  bool findSegmentByTime(void* handle, u32 time, SegmentBounds* bounds) override;
  bool loadSegment(void* handle, SegmentBounds* bounds, ISegmentHolder* holder) override;
  void onFreeSegment(void* handle, u32 segment) override;
  bool record(void* handle, unsigned short type, const void* data, u32 size, u32 time) override;
  bool flushSegment(void* handle, SegmentBounds* bounds) override;
  u32 getPermission() const override;
  bool getAttribute(void* handle, AttrType_t attribute, void* value, u32& size) const override;
  bool getMediaContexts(void* handle, ContextType_t type, i64 position,
                        IContextHolder* holder) const override;
  bool getAllMediaContexts(void* handle, IAllContextHolder* holder) const override;

  virtual void config();
  // `*value` is a malloc block of `size` bytes, made larger if need be. True if the host's text stands in it.
  virtual bool readConfig(const char* key, char** value, u32& size);
  // These come in with the default in `value` and go out with the result. True if the host had a text for the
  // key, also one that was rejected.
  virtual bool readConfigBool(const char* key, bool& value);
  virtual bool readConfigUnsigned(const char* key, u32& value, u32 minimum, u32 maximum);
  bool readConfigInt(const char* key, int& value);

 private:
  static char* STRTOK_CHAR(char* text, const char* delimiters, char** state);
  void readFrameTypes();

  IQVStreamContext* context;
  FLVConfig configuration;
};

}  // namespace orv::flv
