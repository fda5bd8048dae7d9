// What the AMF0 and the AMF3 writer of one message share: the bytes, the arrays met so far, and the depth.

#pragma once

#include <string_view>

#include "server/AmfLimits.h"
#include "server/AmfTables.h"
#include "shared_ktserver/ktparser.h"

namespace orv::amf {

class Writing {
 public:
  // `parser` must outlive the object.
  explicit Writing(KTParser& parser) : out(parser) {}
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;

  // A container is open while its content is written.
  class Level {
   public:
    explicit Level(Writing& writing) : writing_(writing) { ++writing_.depth_; }
    ~Level() { --writing_.depth_; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

   private:
    Writing& writing_;
  };

  bool mayNest() const { return depth_ < kMaxNesting; }
  // Writes the given marker in the place of what can't be said.
  void refuse(u8 undefined) {
    out.giveUp();
    out.writeU8(undefined);
  }

  KTParser& out;
  ObjectTable objects;  // A null entry stands for what takes an index and can't be referred to.

 private:
  u32 depth_ = 0;
};

// The class name of an object, which is its first entry if that has the key "constructor".
struct ClassName {
  bool given;
  std::string_view text;

  // The first entry that is a member.
  u32 firstMember() const { return given ? 1 : 0; }
};
ClassName classNameOf(const KTDataArray& array);

}  // namespace orv::amf
