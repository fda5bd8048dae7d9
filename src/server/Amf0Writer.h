// KTData, written as AMF0 values. What has no AMF0 form, or shall go out as AMF3, follows marker 17.

#pragma once

#include "server/Amf3Writer.h"
#include "server/AmfWriting.h"

namespace orv::amf {

class Amf0Writer {
 public:
  explicit Amf0Writer(KTParser& out) : writing_(out), amf3_(writing_) {}

  void write(const KTData& value) { writeMember(value, nullptr); }
  void resetTables() { writing_.objects.cutTo(0); }

 private:
  u8 writeMember(const KTData& value, const std::string_view* key);
  u8 writeForm(const KTData& value);
  u8 writeText(const KTData& value);
  u8 writeDate(const KTData& value);
  u8 writeMemory(const KTData& value);
  u8 writeAsAmf3(const KTData& value);
  u8 writeContainer(const KTData& value);
  void writeContent(u8 marker, const KTDataArray& array);
  void writeMembers(const KTDataArray& array, u32 first);
  void writeEntries(const KTDataArray& array, u32 first);
  void writeTypedObject(const KTDataArray& array);
  void writeStrictArray(const KTDataArray& array);

  Writing writing_;
  Amf3Writer amf3_;
};

}  // namespace orv::amf
