// KTData, written as AMF3 values.

#pragma once

#include "server/AmfWriting.h"

namespace orv::amf {

class Amf3Writer {
 public:
  // `writing` must outlive the object.
  explicit Amf3Writer(Writing& writing) : writing_(writing), out_(writing.out) {}

  // One value with its marker.
  void write(const KTData& value);

  u32 stringCount() const { return strings_.size(); }
  void forgetStringsFrom(u32 count) { strings_.cutTo(count); }

 private:
  void writeU29(u32 value);
  void writeString(std::string_view text);
  void writeNumber(const KTData& value);
  void writeXml(const KTData& value);
  void writeDate(const KTData& value);
  void writeBytes(const KTData& value);
  void writeContainer(u8 marker, const KTData& value);
  void writeContent(u8 marker, const KTDataArray& array);
  void writePairs(const KTDataArray& array, u32 first);
  void writeObject(const KTDataArray& array);
  void writeVector(u8 marker, const KTDataArray& record);
  void writeVectorElement(u8 marker, const KTData& value);
  void writeDictionary(const KTDataArray& record);

  Writing& writing_;
  KTParser& out_;
  StringTable strings_;
};

}  // namespace orv::amf
