// AMF0 and AMF3 values, read into KTData and written from it.
//
// One object is a reader or a writer, lives on the stack of one operation, and keeps its reference tables for
// all the values of one message. AMF0 marker 17 switches to AMF3 for one value, and both share the tables.
//
// A reader's failures are those of KTParser; going past a limit (server/AmfLimits.h) is one of them. An
// AMF0 marker that doesn't exist throws KTBreakConnection whatever the policy. After a soft failure
// - a value whose marker is missing stays Undefined;
// - a plain value that was cut has its type, with 0 or the empty text for what is missing;
// - a container has what was read whole, in its order. A plain member or element that was cut is left out; a
//   container that was cut is kept, with what it has.
//
// What an array refers to is counted, and a file can make an array contain itself. Such references hold as
// long as the reader does: its destructor turns each value that refers to an array around it into Undefined,
// in whatever copies of the root the caller may still hold. So a reader leaves no cycle behind, and what it
// read is freed with the last value that the caller keeps.
//
// A writer never calls itself without bound: what lies deeper than the limit, or can't be said in the form
// that it needs (an AMF0 reference above 65,535, a block of 256 MiB or more in AMF3), goes out as Undefined,
// and `failed` tells.

#pragma once

#include <vector>

#include "server/AmfLimits.h"
#include "server/AmfTables.h"
#include "shared_ktserver/ktparser.h"

namespace orv {
class SingleMessage;
}

class KTCSerializer : public KTParser {
 public:
  // A writer.
  KTCSerializer() = default;
  // A reader; the bytes must outlive it.
  KTCSerializer(const u8* data, u32 length, bool throwOnError);
  // A reader over a payload. The first byte of types 15, 16 and 17 is skipped. A null message has no bytes.
  KTCSerializer(const orv::SingleMessage* message, bool throwOnError);
  ~KTCSerializer();

  // One AMF0 value, `value` being Undefined before. The tables are kept for the next one unless told
  // otherwise.
  void readValue(KTData& value, bool resetTablesAfter = false);
  void writeValue(const KTData& value, bool resetTablesAfter = false);
  // Forgets all arrays and classes; AMF3 strings stay.
  void resetTables();

 protected:
  // Takes heap bytes from what the reader is granted; false, after a failure, if so many aren't left.
  bool charge(u64 bytes) {
    if (bytes <= grant_) [[likely]] {
      grant_ -= bytes;
      return true;
    }
    fail();
    return false;
  }

 private:
  using Span = orv::amf::Span;

  // An AMF3 class as its first object describes it.
  struct Traits {
    u32 header;
    Span className;
    std::vector<Span> members;
  };
  struct Pair {
    std::string_view key;
    KTData value;
  };
  // The place of a value that refers to an array around it.
  struct BackReference {
    KTDataArrayPtr holder;
    u32 index;
    KTDataArrayPtr target;
  };
  // How far a writer had come, to go back to.
  struct Mark {
    i32 position;
    u32 objects;
    u32 strings;
  };
  // What opens an AMF3 form that may be a reference.
  struct FormHeader {
    bool usable;         // False after a failure.
    u32 bits;            // The U29.
    KTDataArray* known;  // What a reference refers to; null for a form that follows inline.

    u32 length() const { return bits >> 1; }
  };
  // A container is open while its content is read or written.
  class Level {
   public:
    Level(KTCSerializer& serializer, const KTDataArray* array) : serializer_(serializer) {
      serializer_.open_[serializer_.depth_++] = array;
    }
    ~Level() { --serializer_.depth_; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

   private:
    KTCSerializer& serializer_;
  };

  // Of both encodings.
  bool mayNest();
  KTDataArray* newArray(i32 type, u32 reserve);
  KTDataArray* newObject(i32 type);
  bool isOpen(const KTDataArray* array) const;
  void enter(KTDataArray& array, std::string_view key, KTData&& value);
  void enterElement(KTDataArray& array, KTData&& value);
  bool noteReference(KTDataArray& holder, const KTData& value) {
    return !KTData::isArray(value.type()) || noteBackReference(holder, value.asArray());
  }
  bool noteBackReference(KTDataArray& holder, KTDataArray* target);
  void cutBackReferences();
  // A plain value in which the failure came.
  bool wasCut(const KTData& value) const { return failed() && !KTData::isArray(value.type()); }
  void makeRoom(KTDataArray& array, u32 count, u32 usualSize);
  void readText(KTData& value, std::string_view text);
  void readBlock(KTData& value, u32 length);
  Mark mark() const { return {position(), objects_.size(), strings_.size()}; }
  void goBackTo(const Mark& mark);

  // AMF0: Amf0Forms.cpp.
  u8 readMember(KTData& value, std::string_view* key);
  u8 writeMember(const KTData& value, const std::string_view* key);
  u8 writeNumberMember(std::string_view key, double value);
  void readForm(u8 marker, KTData& value);
  u8 writeForm(const KTData& value);
  u8 writeText(const KTData& value);
  void readMembers(KTDataArray& array);
  void writeMembers(const KTDataArray& array, u32 first);
  void readObject(KTData& value);
  void readTypedObject(KTData& value);
  void writeTypedObject(const KTDataArray& array);
  void readEcmaArray(KTData& value);
  void readStrictArray(KTData& value);
  void writeStrictArray(const KTDataArray& array);
  void readReference(KTData& value);
  u8 writeContainer(const KTData& value);
  void writeContent(u8 marker, const KTDataArray& array);
  u8 writeRefused();
  void readDate(KTData& value);
  u8 writeDate(const KTData& value);
  void readMemory(KTData& value);
  u8 writeMemory(const KTData& value);
  u8 writeAsAmf3(const KTData& value);

  // AMF3 primitives and plain forms: Amf3Forms.cpp.
  void readAmf3(KTData& value);
  void readAmf3Form(u8 marker, KTData& value);
  void readAmf3Plain(u8 marker, KTData& value);
  void writeAmf3(const KTData& value);
  u32 readU29();
  void writeU29(u32 value);
  std::string_view readAmf3String();
  void writeAmf3String(std::string_view text);
  std::string_view textOf(Span span) const { return span.in(bytes()); }
  FormHeader readHeader();
  void writeAmf3Number(const KTData& value);
  void readAmf3Xml(u8 marker, KTData& value);
  void writeAmf3Xml(const KTData& value);
  void readAmf3Date(KTData& value);
  void writeAmf3Date(const KTData& value);
  void readAmf3Bytes(KTData& value);
  void writeAmf3Bytes(const KTData& value);
  void addRecord(i32 type, const char* key, const KTData& value);
  void copyFromRecord(const KTDataArray& record, i32 type, u8 valueType, KTData& value);
  void writeAmf3Refused();

  // AMF3 forms that hold other values: Amf3Containers.cpp.
  void readAmf3Array(KTData& value);
  void readAmf3Object(KTData& value);
  i64 readTraits(u32 header);
  i64 readNewTraits(u32 header);
  void readSealed(std::size_t traits, KTDataArray& array);
  bool readPair(Pair& pair);
  void readNamed(KTDataArray& array);
  std::vector<Pair> readNamedAhead();
  void enterPaid(KTDataArray& array, std::vector<Pair>& named);
  void readVector(u8 marker, KTData& value);
  KTDataArray* openRecord(u8 marker, u32 count, const char* flagName, bool flag, KTData& value);
  void readVectorElement(u8 marker, KTData& value);
  void readDictionary(KTData& value);
  void readDictionaryPairs(u32 count, KTDataArray& array);
  void writeAmf3Container(u8 marker, const KTData& value);
  void writeAmf3Content(u8 marker, const KTDataArray& array);
  void writePairs(const KTDataArray& array, u32 first);
  void writeAmf3Object(const KTDataArray& array);
  void writeVector(u8 marker, const KTDataArray& array);
  void writeVectorElement(u8 marker, const KTData& value);
  void writeDictionary(const KTDataArray& array);

  orv::amf::StringTable strings_;  // Of AMF3.
  orv::amf::ObjectTable objects_;  // Of AMF0 and AMF3 alike; null where a writer kept no array.
  std::vector<Traits> traits_;
  std::vector<BackReference> backReferences_;
  const KTDataArray* open_[orv::amf::kMaxNesting];  // The containers around the current value.
  u32 depth_ = 0;
  u64 grant_ = 0;  // Heap bytes that a reader may still take.
};

namespace orv::amf {

// The class name of an object, which is its first entry if that has the key "constructor".
struct ClassName {
  bool given;
  std::string_view text;

  // The first entry that is a member.
  u32 firstMember() const { return given ? 1 : 0; }
};
ClassName classNameOf(const KTDataArray& array);

}  // namespace orv::amf
