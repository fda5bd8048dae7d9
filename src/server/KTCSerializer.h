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
// A writer nests no deeper than the limit. What lies deeper, or can't be said in the form that it needs (an
// AMF0 reference above 65,535, a block of 256 MiB or more in AMF3), goes out as Undefined; a value for which
// there is no memory is left out. Either sets `failed`.

#pragma once

#include <variant>

#include "server/Amf0Reader.h"
#include "server/Amf0Writer.h"
#include "shared_ktserver/ktparser.h"

namespace orv {
class SingleMessage;
}

class KTCSerializer : public KTParser {
 public:
  // Makes a writer.
  KTCSerializer() : side_(std::in_place_type<orv::amf::Amf0Writer>, *this) {}
  // Makes a reader; the bytes must outlive it.
  KTCSerializer(const u8* data, u32 length, bool throwOnError)
      : KTParser(data, length, throwOnError), side_(std::in_place_type<orv::amf::Amf0Reader>, *this) {}
  // Makes a reader of a payload. Skips the first byte of types 15, 16 and 17. A null message has no bytes.
  KTCSerializer(const orv::SingleMessage* message, bool throwOnError);

  // Read into `value`, which must be Undefined, or write one AMF0 value. Keep the tables for the next value
  // unless `resetTablesAfter` is set.
  void readValue(KTData& value, bool resetTablesAfter = false);
  void writeValue(const KTData& value, bool resetTablesAfter = false);
  // Forgets all arrays and classes; AMF3 strings stay.
  void resetTables();

 protected:
  // Takes heap bytes from what a reader is granted. Returns false, after a failure, if so many aren't left.
  bool charge(u64 bytes);

 private:
  std::variant<orv::amf::Amf0Reader, orv::amf::Amf0Writer> side_;
};
