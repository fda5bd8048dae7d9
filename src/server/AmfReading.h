// What the AMF0 and the AMF3 reader of one message share: the bytes, the arrays met so far, and the limits.

#pragma once

#include <string_view>
#include <vector>

#include "server/AmfLimits.h"
#include "server/AmfTables.h"
#include "shared_ktserver/ktparser.h"

namespace orv::amf {

class Reading {
 public:
  // `parser` must outlive the object.
  explicit Reading(KTParser& parser) : in(parser), grant_(grantFor(parser.remaining())) {}
  // Turns each value that refers to an array around it into Undefined, so that no cycle is left.
  ~Reading();
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  // A container is open while its content is read.
  class Level {
   public:
    Level(Reading& reading, const KTDataArray* array) : reading_(reading) {
      reading_.open_[reading_.depth_++] = array;
    }
    ~Level() { --reading_.depth_; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

   private:
    Reading& reading_;
  };

  // Takes heap bytes from the grant. Returns false, after a failure, if so many aren't left.
  bool charge(u64 bytes) {
    if (bytes <= grant_) [[likely]] {
      grant_ -= bytes;
      return true;
    }
    in.fail();
    return false;
  }
  // Returns false, after a failure, if no container may be opened any more.
  bool mayNest();
  // Whether the failure came inside this value. A container isn't cut: it keeps what it has.
  bool wasCut(const KTData& value) const { return in.failed() && !KTData::isArray(value.type()); }

  // Makes an array that nobody owns yet. Returns null after a failure.
  KTDataArray* newArray(i32 type, u32 reserve);
  // Makes one that may hold others, and enters it in `objects`. Returns null after a failure.
  KTDataArray* newObject(i32 type);
  // Takes room for a count that is only a claim: no more than fits the bytes left, or what is granted.
  void makeRoom(KTDataArray& array, u32 count, u32 leastSize);

  // Append an entry, unless memory for it isn't granted.
  void enter(KTDataArray& array, std::string_view key, KTData&& value);
  void enterElement(KTDataArray& array, KTData&& value);
  // Remembers a value that is about to be entered if it closes a cycle. Returns false, after a failure, if
  // memory for that isn't granted.
  bool noteReference(KTDataArray& holder, const KTData& value) {
    return !KTData::isArray(value.type()) || noteBackReference(holder, value.asArray());
  }

  // Sets a String, empty if memory for it isn't granted.
  void readText(KTData& value, std::string_view text);
  // Sets a Memory over a copy of the next bytes, or over none after a failure.
  void readBlock(KTData& value, u32 length);

  KTParser& in;
  ObjectTable objects;

 private:
  // The place of a value that refers to an array around it.
  struct BackReference {
    KTDataArrayPtr holder;
    u32 index;
    KTDataArrayPtr target;
  };

  bool isOpen(const KTDataArray* array) const;
  bool noteBackReference(KTDataArray& holder, KTDataArray* target);

  std::vector<BackReference> backReferences_;
  const KTDataArray* open_[kMaxNesting];  // The containers around the current value.
  u32 depth_ = 0;
  u64 grant_;  // Heap bytes that may still be taken.
};

}  // namespace orv::amf
