// AMF0 values, read into KTData. Marker 17 hands one value over to the AMF3 reader, with the same tables.

#pragma once

#include "server/Amf3Reader.h"
#include "server/AmfReading.h"

namespace orv::amf {

class Amf0Reader {
 public:
  explicit Amf0Reader(KTParser& in) : reading_(in), amf3_(reading_) {}

  void read(KTData& value) { readMember(value, nullptr); }
  void resetTables();
  bool charge(u64 bytes) { return reading_.charge(bytes); }

 private:
  u8 readMember(KTData& value, std::string_view* key);
  void readForm(u8 marker, KTData& value);
  void readMembers(KTDataArray& array);
  void readObject(KTData& value);
  void readTypedObject(KTData& value);
  void readEcmaArray(KTData& value);
  void readStrictArray(KTData& value);
  void readReference(KTData& value);
  void readDate(KTData& value);

  Reading reading_;
  Amf3Reader amf3_;
};

}  // namespace orv::amf
