// AMF3 values, read into KTData.

#pragma once

#include <vector>

#include "server/AmfReading.h"

namespace orv::amf {

class Amf3Reader {
 public:
  // `reading` must outlive the object.
  explicit Amf3Reader(Reading& reading) : reading_(reading), in_(reading.in) {}

  // One value with its marker.
  void read(KTData& value);
  // Forgets the classes; strings stay.
  void resetClasses() { classes_.clear(); }

 private:
  // A class as its first object describes it.
  struct Class {
    u32 header;
    Span name;
    std::vector<Span> members;
  };
  struct Pair {
    std::string_view key;
    KTData value;
  };
  // What opens a form that may be a reference.
  struct FormHeader {
    bool usable;         // False after a failure.
    u32 bits;            // The U29.
    KTDataArray* known;  // What a reference refers to; null for a form that follows inline.

    u32 length() const { return bits >> 1; }
  };

  // Plain forms: Amf3Reader.cpp.
  void readForm(u8 marker, KTData& value);
  void readPlain(u8 marker, KTData& value);
  u32 readU29();
  std::string_view readString();
  std::string_view textOf(Span span) const { return span.in(in_.bytes()); }
  FormHeader readHeader();
  void readXml(u8 marker, KTData& value);
  void readDate(KTData& value);
  void readBytes(KTData& value);
  void addRecord(i32 type, const char* key, const KTData& value);
  void copyFromRecord(const KTDataArray& record, i32 type, u8 valueType, KTData& value);

  // Forms that hold other values: Amf3ContainerReader.cpp.
  void readArray(KTData& value);
  void readDense(KTDataArray& array, u32 count);
  void readObject(KTData& value);
  i64 readClass(u32 header);
  i64 readNewClass(u32 header);
  void readSealed(std::size_t classIndex, KTDataArray& array);
  bool readPair(Pair& pair);
  void readNamed(KTDataArray& array);
  std::vector<Pair> readNamedAhead();
  void readVector(u8 marker, KTData& value);
  void readVectorElement(u8 marker, KTData& value);
  void readDictionary(KTData& value);
  void readDictionaryPairs(u32 count, KTDataArray& record);
  void copyKnownRecord(KTDataArray* record, KTData& value);
  KTDataArray* openRecord(u8 marker, u32 count, const char* flagName, bool flag, KTData& value);
  void closeRecord(KTDataArray* record);

  Reading& reading_;
  KTParser& in_;
  StringTable strings_;
  std::vector<Class> classes_;
};

}  // namespace orv::amf
